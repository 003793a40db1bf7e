#pragma once

#include "Shared/CaseError.h"

enum class WhisperErrorCase { transcriptionFailed, notInstalled, modelMissing, modelDamaged, timedOut, tooQuiet };

// The Whisper engine's errors, in the order users meet them.
class WhisperError final : public CaseError<WhisperError, WhisperErrorCase> {
public:
    static WhisperError transcriptionFailed(QString detail) { return WhisperError(Case::transcriptionFailed, std::move(detail)); }
    static WhisperError notInstalled() { return WhisperError(Case::notInstalled, {}); }
    static WhisperError modelMissing() { return WhisperError(Case::modelMissing, {}); }
    static WhisperError modelDamaged(QString fileName) { return WhisperError(Case::modelDamaged, std::move(fileName)); }
    static WhisperError timedOut() { return WhisperError(Case::timedOut, {}); }
    static WhisperError tooQuiet() { return WhisperError(Case::tooQuiet, {}); }

    QString description() const override;

private:
    using CaseError::CaseError;
};
