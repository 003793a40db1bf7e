#pragma once

#include "Shared/Error.h"

// Why an audio track could not be turned into a WAV file.
class AudioExtractorError final : public Error {
public:
    enum class Case { readFailed, noAudioTrack };

    static AudioExtractorError readFailed(QString reason) { return {Case::readFailed, std::move(reason)}; }
    static AudioExtractorError noAudioTrack() { return {Case::noAudioTrack, {}}; }

    Case errorCase() const { return m_case; }
    QString reason() const { return m_reason; }
    QString description() const override;
    std::shared_ptr<const Error> clone() const override { return std::make_shared<AudioExtractorError>(*this); }

private:
    AudioExtractorError(Case c, QString reason) : m_case(c), m_reason(std::move(reason)) {}

    Case m_case;
    QString m_reason;
};
