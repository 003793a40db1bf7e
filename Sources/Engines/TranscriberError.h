#pragma once

#include "Shared/CaseError.h"

enum class TranscriberErrorCase { recognizerUnavailable };

// The native engine's error: no recogniser for the configured language.
class TranscriberError final : public CaseError<TranscriberError, TranscriberErrorCase> {
public:
    static TranscriberError recognizerUnavailable(QString identifier)
    {
        return TranscriberError(Case::recognizerUnavailable, std::move(identifier));
    }

    QString description() const override;

private:
    using CaseError::CaseError;
};
