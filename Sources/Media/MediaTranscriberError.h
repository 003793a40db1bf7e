#pragma once

#include "Shared/CaseError.h"

enum class MediaTranscriberErrorCase { downloadFailed, modelMissing, cancelled };

// What can end a file or link transcription before Whisper has had its say.
class MediaTranscriberError final : public CaseError<MediaTranscriberError, MediaTranscriberErrorCase> {
public:
    // `reason` is yt-dlp's last error line, or one of our own short reasons.
    static MediaTranscriberError downloadFailed(QString reason) { return {Case::downloadFailed, std::move(reason)}; }
    static MediaTranscriberError modelMissing() { return {Case::modelMissing, {}}; }
    static MediaTranscriberError cancelled() { return {Case::cancelled, {}}; }

    QString description() const override;

private:
    using CaseError::CaseError;
};
