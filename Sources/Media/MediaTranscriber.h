#pragma once

#include "Platform/MediaReader.h"
#include "Shared/Error.h"
#include "YtDlpManager.h"

#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

// Turns one local media file, or the audio of one online video, into a transcript and SRT
// subtitles. One transcriber serves one job: fetch the audio with yt-dlp (links only), extract a
// 16 kHz mono WAV, run whisper-cli. The work happens on a worker thread in a private folder,
// "voxaria-media-<UUID>" under the temporary folder; status, the result or the error come back on
// the main thread through the callbacks below. After a success only the SRT stays in that folder,
// and whoever holds the Output owns it from then on; after a failure the folder is gone.
//
// Dropping the transcriber while its job runs cancels the job: nothing is delivered and the
// folder is removed. Quitting the program does the same for every job still running.
class MediaTranscriber final : public QObject {
    Q_OBJECT
public:
    // What to transcribe.
    struct Source {
        enum class Kind { url, file };
        Kind kind = Kind::file;
        QString value; // the link as the user typed it (trimmed), or the file's path

        static Source url(QString link) { return {Kind::url, std::move(link)}; }
        static Source file(QString path) { return {Kind::file, std::move(path)}; }
    };

    // The result: the trimmed transcript, and the SRT file when whisper-cli wrote one.
    struct Output {
        QString text;
        std::optional<QString> srtURL;
    };

    // `progress` is 0.0-1.0 within the current phase, absent when the phase cannot say.
    using StatusCallback = std::function<void(const QString& text, std::optional<double> progress)>;
    using FinishedCallback = std::function<void(const Output& output)>;
    using ErrorCallback = std::function<void(const Error& error)>;

    using MediaReaderFactory = std::function<std::unique_ptr<MediaReader>()>;

    // `makeReader` opens the media file on the job's worker; `whisperModelFileName` names the model
    // whisper-cli loads, as dictation's (the first installed one when it is missing).
    MediaTranscriber(MediaReaderFactory makeReader, QString whisperModelFileName, QObject* parent = nullptr);
    ~MediaTranscriber() override;

    // Set before transcribe(); called on the main thread only. Exactly one of onFinished and
    // onError answers a job, before its folder is cleaned.
    StatusCallback onStatus;
    FinishedCallback onFinished;
    ErrorCallback onError;
    // Where a link job finds yt-dlp, asked on the main thread as the job starts.
    std::function<std::optional<QString>()> ytDlpPath = &YtDlpManager::binaryURL;

    // Starts the job and returns at once. Without whisper-cli or a model it calls onError with
    // MediaTranscriberError::modelMissing() before returning, and starts nothing. A transcriber
    // serves one job: later calls are ignored.
    void transcribe(const Source& source);
    // Stops the running child program and ends the job with MediaTranscriberError::cancelled().
    // Returns at once.
    void cancel();
    // The job's folder while it exists (after a success: the one holding the SRT).
    std::optional<QString> workDir() const;

    // Removes the job folders an earlier run left behind when it crashed. Call it at start-up,
    // before any job starts.
    static void removeLeftovers();

private:
    class Job;
    class Workers;

    const MediaReaderFactory m_makeReader;
    const QString m_whisperModelFileName;
    std::shared_ptr<Job> m_job;
};
