#pragma once

#include "Shared/CaseError.h"

enum class AudioExtractorErrorCase { readFailed, noAudioTrack };

// Why an audio track could not be turned into a WAV file.
class AudioExtractorError final : public CaseError<AudioExtractorError, AudioExtractorErrorCase> {
public:
    static AudioExtractorError readFailed(QString reason) { return {Case::readFailed, std::move(reason)}; }
    static AudioExtractorError noAudioTrack() { return {Case::noAudioTrack, {}}; }

    QString description() const override;

private:
    using CaseError::CaseError;
};
