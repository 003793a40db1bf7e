#include "TranscriptionEngineKind.h"

std::optional<TranscriptionEngineKind> TranscriptionEngineKind::fromRawValue(const QString& raw)
{
    for (TranscriptionEngineKind kind : allCases()) {
        if (kind.rawValue() == raw)
            return kind;
    }
    return std::nullopt;
}

QList<TranscriptionEngineKind> TranscriptionEngineKind::allCases()
{
    return {whisper, apple};
}

QString TranscriptionEngineKind::rawValue() const
{
    return m_value == whisper ? QStringLiteral("whisper") : QStringLiteral("apple");
}

QString TranscriptionEngineKind::label() const
{
    if (m_value == whisper)
        return QStringLiteral("Whisper (melhor qualidade)");
    return QStringLiteral("Nemotron (nativo, tempo real)");
}
