#pragma once

#include "Shared/Error.h"

// What can end a file or link transcription before Whisper has had its say.
class MediaTranscriberError final : public Error {
public:
    enum class Case { downloadFailed, modelMissing, cancelled };

    // `reason` is yt-dlp's last error line, or one of our own short reasons.
    static MediaTranscriberError downloadFailed(QString reason) { return {Case::downloadFailed, std::move(reason)}; }
    static MediaTranscriberError modelMissing() { return {Case::modelMissing, {}}; }
    static MediaTranscriberError cancelled() { return {Case::cancelled, {}}; }

    Case errorCase() const { return m_case; }
    QString reason() const { return m_reason; }
    QString description() const override;
    std::shared_ptr<const Error> clone() const override { return std::make_shared<MediaTranscriberError>(*this); }

private:
    MediaTranscriberError(Case c, QString reason) : m_case(c), m_reason(std::move(reason)) {}

    Case m_case;
    QString m_reason;
};
