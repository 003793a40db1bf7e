#pragma once

#include "Shared/CaseError.h"

enum class MediaTranscriberErrorCase {
    downloadFailed,
    videoNotFound,
    privateVideo,
    videoUnavailable,
    loginRequired,
    unsupportedAddress,
    noConnection,
    accessDenied,
    geoRestricted,
    liveNotStarted,
    tooManyRequests,
    siteFailing,
    ytDlpOutdated,
    modelMissing,
    cancelled,
};

// What can end a file or link transcription before Whisper has had its say.
class MediaTranscriberError final : public CaseError<MediaTranscriberError, MediaTranscriberErrorCase> {
public:
    // `reason` is yt-dlp's last error line, or one of our own short reasons.
    static MediaTranscriberError downloadFailed(QString reason) { return {Case::downloadFailed, std::move(reason)}; }
    // yt-dlp's last error line, read as one of the failures users meet most (a missing or private
    // video, no network…); any other line stays a plain downloadFailed.
    static MediaTranscriberError fromYtDlpLine(QString line);
    static MediaTranscriberError modelMissing() { return {Case::modelMissing, {}}; }
    static MediaTranscriberError cancelled() { return {Case::cancelled, {}}; }

    QString description() const override;
    // The site changed in a way only a newer yt-dlp understands.
    bool needsNewerYtDlp() const { return errorCase() == Case::ytDlpOutdated; }
    // yt-dlp's own words behind a failure that description() rewords; empty otherwise.
    QString toolOutput() const;

private:
    using CaseError::CaseError;
};
