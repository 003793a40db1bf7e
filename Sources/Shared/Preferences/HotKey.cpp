#include "HotKey.h"

std::optional<HotKey> HotKey::fromRawValue(const QString& raw)
{
    for (HotKey key : allCases()) {
        if (key.rawValue() == raw)
            return key;
    }
    return std::nullopt;
}

QList<HotKey> HotKey::allCases()
{
    return {rightOption, rightCommand, fn};
}

QString HotKey::rawValue() const
{
    switch (m_value) {
    case rightOption: return QStringLiteral("rightOption");
    case rightCommand: return QStringLiteral("rightCommand");
    case fn: return QStringLiteral("fn");
    }
    return {};
}

QString HotKey::label() const
{
    switch (m_value) {
    case rightOption: return QStringLiteral("Alt direito (AltGr)");
    case rightCommand: return QStringLiteral("Super direito");
    case fn: return QStringLiteral("fn");
    }
    return {};
}

quint16 HotKey::keyCode() const
{
    switch (m_value) {
    case rightOption: return 61;
    case rightCommand: return 54;
    case fn: return 63;
    }
    return 0;
}

quint64 HotKey::modifierFlag() const
{
    switch (m_value) {
    case rightOption: return 0x80000;
    case rightCommand: return 0x100000;
    case fn: return 0x800000;
    }
    return 0;
}
