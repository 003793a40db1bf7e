#pragma once

#include <QList>
#include <QString>

#include <optional>

// Which dictation engine the user chose. The raw values are what the settings store.
class TranscriptionEngineKind {
public:
    enum Value { whisper, apple };

    constexpr TranscriptionEngineKind(Value value)
        : m_value(value)
    {
    }
    constexpr operator Value() const { return m_value; }

    // Exact, case-sensitive match of a raw value.
    static std::optional<TranscriptionEngineKind> fromRawValue(const QString& raw);
    static QList<TranscriptionEngineKind> allCases();
    QString rawValue() const;
    QString label() const;

private:
    Value m_value;
};
