#pragma once

#include <QList>
#include <QString>

#include <optional>

// The key held to dictate, with the virtual key code and modifier flag its events carry.
class HotKey {
public:
    enum Value { rightOption, rightCommand, fn };

    constexpr HotKey(Value value)
        : m_value(value)
    {
    }
    constexpr operator Value() const { return m_value; }

    // Exact, case-sensitive match of a raw value.
    static std::optional<HotKey> fromRawValue(const QString& raw);
    static QList<HotKey> allCases();
    QString rawValue() const;
    QString label() const;
    quint16 keyCode() const;
    quint64 modifierFlag() const;

private:
    Value m_value;
};
