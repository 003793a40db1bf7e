#pragma once

#include "Shared/Error.h"

// The native engine's error: no recogniser for the configured language.
class TranscriberError final : public Error {
public:
    enum class Case { recognizerUnavailable };

    static TranscriberError recognizerUnavailable(QString identifier)
    {
        return TranscriberError(Case::recognizerUnavailable, std::move(identifier));
    }

    Case errorCase() const { return m_case; }
    QString identifier() const { return m_identifier; }
    QString description() const override;
    std::shared_ptr<const Error> clone() const override { return std::make_shared<TranscriberError>(*this); }

private:
    TranscriberError(Case c, QString identifier) : m_case(c), m_identifier(std::move(identifier)) {}

    Case m_case;
    QString m_identifier;
};
