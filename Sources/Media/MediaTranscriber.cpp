#include "MediaTranscriber.h"

#include "AudioExtractor.h"
#include "Engines/PhantomPhrases.h"
#include "Engines/WhisperCliFeatures.h"
#include "Engines/WhisperError.h"
#include "Engines/WhisperTranscriber.h"
#include "JobProcess.h"
#include "MediaTranscriberError.h"
#include "Shared/AppPaths.h"
#include "Shared/Logging.h"
#include "Shared/StrictUtf8.h"
#include "YtDlpManager.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPointer>
#include <QRegularExpression>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <list>
#include <utility>

namespace {

const QString kFolderPrefix = QStringLiteral("voxaria-media-");

// Only the user may read what a job fetches and hears: the folder is theirs alone, and so is every
// file in it once we know of it.
constexpr QFile::Permissions kPrivateFolder = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
constexpr QFile::Permissions kPrivateFile = QFile::ReadOwner | QFile::WriteOwner;

// The children create their files private (JobProcess); the audio this process extracts follows the
// program's own umask until then.
void makeFilesPrivate(const QString& folder)
{
    for (const QFileInfo& entry : QDir(folder).entryInfoList(QDir::Files | QDir::Hidden | QDir::NoSymLinks))
        QFile::setPermissions(entry.filePath(), kPrivateFile);
}

std::optional<QString> readTranscriptFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return decodeTranscript(file.readAll());
}

// Files or folders (never what a link points at) inside `folder` whose names pass `matches`.
void removeEntries(const QString& folder, const std::function<bool(const QString& name)>& matches)
{
    const QFileInfoList entries = QDir(folder).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System);
    for (const QFileInfo& entry : entries) {
        if (!matches(entry.fileName()))
            continue;
        if (entry.isDir() && !entry.isSymLink())
            QDir(entry.filePath()).removeRecursively();
        else
            QFile::remove(entry.filePath());
    }
}

QStringList fetchArguments(const QString& link)
{
    // --print implies --quiet, which hides the [download] lines; --progress brings them back.
    // --ignore-config: the user's own configuration could send the file elsewhere or skip it as
    // already in a download archive.
    return {QStringLiteral("--ignore-config"), QStringLiteral("-f"),
        QStringLiteral("bestaudio[ext=m4a]/bestaudio[ext=mp4]/best[ext=mp4]/best"), QStringLiteral("--no-playlist"),
        QStringLiteral("--newline"), QStringLiteral("--progress"), QStringLiteral("--no-simulate"), QStringLiteral("--print"),
        QStringLiteral("after_move:filepath"), QStringLiteral("-o"), QStringLiteral("media.%(ext)s"), link};
}

}

// The job as its worker thread sees it. The main thread and the worker share only `cancelled`;
// everything else a thread touches is either fixed before the worker starts or used by one thread.
class MediaTranscriber::Job : public std::enable_shared_from_this<Job> {
public:
    Job(MediaTranscriber* transcriber, QString folder, std::optional<QString> ytDlp)
        : owner(transcriber)
        , directory(std::move(folder))
        , ytDlpProgram(std::move(ytDlp))
        , makeReader(transcriber->m_makeReader)
        , whisperModelFileName(transcriber->m_whisperModelFileName)
    {
    }

    // Worker thread.
    void run(const Source& source);

    // Main thread.
    void cleanupKeepingSRT(const std::optional<QString>& srtURL);

    const QPointer<MediaTranscriber> owner; // read on the main thread only
    const QString directory;
    const std::optional<QString> ytDlpProgram; // found when the job started
    const MediaReaderFactory makeReader;
    const QString whisperModelFileName;
    std::atomic<bool> cancelled = false;
    bool delivered = false; // main thread: an answer reached the main thread
    bool directoryKept = true; // main thread: the folder has not been removed yet

private:
    QString downloadMedia(const QString& link);
    QString attemptDownload(const QString& ytdlp, const QString& link);
    void selfUpdateYtDlp(const QString& ytdlp);
    Output runWhisper(const QString& wavURL);
    int runChild(JobProcess& child);
    void throwIfCancelled() const;

    void status(const QString& text, std::optional<double> progress);
    void reportDownloadProgress(const QString& line);
    void reportWhisperProgress(const QString& line);
    void deliver(const std::function<void(MediaTranscriber& transcriber)>& answer, const std::optional<QString>& srtURL);
    void post(std::function<void()> work);
};

// Every job's worker thread, from its start until it is joined; used on the main thread only.
class MediaTranscriber::Workers {
public:
    static Workers& shared()
    {
        static Workers workers;
        return workers;
    }

    ~Workers() { stopAll(); }

    void start(const std::shared_ptr<Job>& job, const Source& source)
    {
        if (!m_quitHooked) {
            // A job still running at quit must neither outlive the application object nor leave
            // its folder behind.
            QObject::connect(qApp, &QCoreApplication::aboutToQuit, qApp, [this] { stopAll(); });
            m_quitHooked = true;
        }
        QThread* thread = QThread::create([job, source] { job->run(source); });
        thread->setObjectName(QStringLiteral("media job"));
        QObject::connect(thread, &QThread::finished, qApp, [this] { reapFinished(); });
        m_running.push_back({job, std::unique_ptr<QThread>(thread)});
        thread->start();
    }

    // A worker's answer is posted before its thread ends, so by the time the end is seen on the
    // main thread the answer has been handled.
    void reapFinished()
    {
        m_running.remove_if([](const Running& entry) {
            if (!entry.thread->isFinished() || !entry.job->delivered)
                return false;
            entry.thread->wait(); // past its last line; returns at once
            return true;
        });
    }

private:
    struct Running {
        std::shared_ptr<Job> job;
        std::unique_ptr<QThread> thread;
    };

    void stopAll()
    {
        for (Running& entry : m_running)
            entry.job->cancelled = true;
        for (Running& entry : m_running) {
            entry.thread->wait();
            // An answer still on its way will find the job already closed.
            if (!std::exchange(entry.job->delivered, true))
                entry.job->cleanupKeepingSRT(std::nullopt);
        }
        m_running.clear();
    }

    std::list<Running> m_running;
    bool m_quitHooked = false;
};

MediaTranscriber::MediaTranscriber(MediaReaderFactory makeReader, QString whisperModelFileName, QObject* parent)
    : QObject(parent)
    , m_makeReader(std::move(makeReader))
    , m_whisperModelFileName(std::move(whisperModelFileName))
{
}

MediaTranscriber::~MediaTranscriber()
{
    cancel();
}

void MediaTranscriber::transcribe(const Source& source)
{
    if (m_job) {
        qCWarning(lcMedia) << "a transcriber serves one job; ignored a second one";
        return;
    }
    if (!WhisperTranscriber::isAvailable(m_whisperModelFileName)) {
        if (onError)
            onError(MediaTranscriberError::modelMissing());
        return;
    }
    const QString directory = AppPaths::scratchPath(kFolderPrefix);
    // A folder that cannot be made shows up as the failure of the first file written into it.
    QDir().mkpath(AppPaths::temporaryFolder());
    QDir().mkdir(directory, kPrivateFolder);
    m_job = std::make_shared<Job>(this, directory, source.kind == Source::Kind::url ? ytDlpPath() : std::nullopt);
    Workers::shared().start(m_job, source);
}

void MediaTranscriber::cancel()
{
    if (m_job)
        m_job->cancelled = true;
}

std::optional<QString> MediaTranscriber::workDir() const
{
    if (!m_job || !m_job->directoryKept)
        return std::nullopt;
    return m_job->directory;
}

void MediaTranscriber::removeLeftovers()
{
    static const QRegularExpression jobFolder(QStringLiteral("^voxaria-media-[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$"));
    const QDir temporary(AppPaths::temporaryFolder());
    for (const QString& name : temporary.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks | QDir::Hidden)) {
        if (jobFolder.match(name).hasMatch()) {
            qCInfo(lcMedia) << "removing the folder of an interrupted job:" << name;
            QDir(temporary.filePath(name)).removeRecursively();
        }
    }
}

// Each step runs only when the one before it succeeded; the first failure is the job's answer,
// unless the job was cancelled meanwhile: then the answer is "cancelled", whatever broke.
void MediaTranscriber::Job::run(const Source& source)
{
    std::shared_ptr<const Error> failure;
    try {
        const QString media = source.kind == Source::Kind::url ? downloadMedia(source.value) : source.value;
        throwIfCancelled();
        status(QStringLiteral("Extraindo áudio…"), std::nullopt);
        const QString wavURL = directory + QStringLiteral("/audio.wav");
        // Stopping the extraction on cancel spares decoding the rest of a long video.
        AudioExtractor::extractWAV(*makeReader(), media, wavURL, [this] { return cancelled.load(); });
        makeFilesPrivate(directory);
        throwIfCancelled();
        const Output output = runWhisper(wavURL);
        deliver(
            [output](MediaTranscriber& transcriber) {
                if (transcriber.onFinished)
                    transcriber.onFinished(output);
            },
            output.srtURL);
        return;
    } catch (const Error& error) {
        failure = error.clone();
    } catch (const std::exception& error) {
        failure = std::make_shared<PlatformError>(QString::fromLocal8Bit(error.what()));
    }
    if (cancelled)
        failure = MediaTranscriberError::cancelled().clone();
    qCInfo(lcMedia) << "job failed:" << failure->description();
    deliver(
        [failure](MediaTranscriber& transcriber) {
            if (transcriber.onError)
                transcriber.onError(*failure);
        },
        std::nullopt);
}

// One fetch; when it fails, one self-update of yt-dlp and one more fetch, whose outcome stands.
QString MediaTranscriber::Job::downloadMedia(const QString& link)
{
    if (!ytDlpProgram)
        throw MediaTranscriberError::downloadFailed(QStringLiteral("componente yt-dlp não instalado"));
    try {
        return attemptDownload(*ytDlpProgram, link);
    } catch (const Error& first) {
        throwIfCancelled();
        qCInfo(lcMedia) << "first fetch failed, updating yt-dlp:" << first.description();
    }
    status(QStringLiteral("Falhou — atualizando o componente de download (yt-dlp)…"), std::nullopt);
    selfUpdateYtDlp(*ytDlpProgram);
    throwIfCancelled();
    return attemptDownload(*ytDlpProgram, link);
}

QString MediaTranscriber::Job::attemptDownload(const QString& ytdlp, const QString& link)
{
    // What an earlier attempt left (a partial "media.webm.part") must not pass for the result.
    removeEntries(directory, [](const QString& name) { return name.startsWith(QLatin1String("media.")); });
    status(QStringLiteral("Baixando áudio do vídeo…"), 0.0);

    JobProcess child(ytdlp, fetchArguments(link), directory);
    QString printedPath;
    QString lastErrorLine;
    child.onOutputLine = [&](const QString& line) {
        // after_move:filepath prints the final file's absolute path once it is in place.
        if (line.startsWith(QLatin1Char('/')))
            printedPath = line;
        else if (line.startsWith(QLatin1String("[download]")))
            reportDownloadProgress(line);
    };
    child.onErrorLine = [&](const QString& line) { lastErrorLine = line; };
    const int exitStatus = runChild(child);
    if (exitStatus != 0) {
        qCWarning(lcMedia) << "yt-dlp exited with status" << exitStatus << ":" << lastErrorLine;
        if (lastErrorLine.isEmpty())
            throw MediaTranscriberError::downloadFailed(QStringLiteral("erro desconhecido"));
        throw MediaTranscriberError::fromYtDlpLine(lastErrorLine);
    }
    if (!printedPath.isEmpty() && QFileInfo(printedPath).isFile())
        return printedPath;
    const QStringList fetched = QDir(directory).entryList({QStringLiteral("media.*")}, QDir::Files, QDir::Name);
    if (!fetched.isEmpty())
        return directory + QLatin1Char('/') + fetched.first();
    throw MediaTranscriberError::downloadFailed(QStringLiteral("arquivo baixado não encontrado"));
}

// Whether yt-dlp managed to update itself shows only in the fetch that follows (Debian's own copy
// refuses, and then simply runs again).
void MediaTranscriber::Job::selfUpdateYtDlp(const QString& ytdlp)
{
    JobProcess update(ytdlp, {QStringLiteral("-U")});
    try {
        update.run([this] { return cancelled.load(); });
    } catch (const Error& error) {
        qCInfo(lcMedia) << "yt-dlp -U could not run:" << error.description();
    }
}

MediaTranscriber::Output MediaTranscriber::Job::runWhisper(const QString& wavURL)
{
    const std::optional<QString> binary = WhisperTranscriber::binaryURL();
    const std::optional<QString> model = WhisperTranscriber::modelURL(whisperModelFileName);
    if (!binary || !model)
        throw MediaTranscriberError::modelMissing();
    status(QStringLiteral("Transcrevendo… (vídeos longos podem levar alguns minutos)"), std::nullopt);

    const QString base = directory + QStringLiteral("/transcricao");
    // Media files come in any language: whisper-cli detects it, whatever dictation is set to. Music,
    // applause and long pauses are left out when it can tell them from speech, so Whisper makes
    // nothing up there.
    JobProcess child(*binary,
        QStringList{QStringLiteral("-m"), *model, QStringLiteral("-f"), wavURL, QStringLiteral("-l"), QStringLiteral("auto"),
            QStringLiteral("--no-prints"), QStringLiteral("--print-progress"), QStringLiteral("-otxt"), QStringLiteral("-osrt"),
            QStringLiteral("-of"), base}
            + WhisperCliFeatures::vadArguments(*binary));
    child.onErrorLine = [this](const QString& line) { reportWhisperProgress(line); };
    const int exitStatus = runChild(child);

    const std::optional<QString> text = exitStatus == 0 ? readTranscriptFile(base + QStringLiteral(".txt")) : std::nullopt;
    if (!text)
        throw WhisperError::transcriptionFailed(QStringLiteral("código ") + QString::number(exitStatus));
    // A whole job that reads as one phrase Whisper makes up on silence was silence: neither text nor
    // subtitles. A file's speech is not measured, so a courtesy phrase alone counts as made up too.
    if (PhantomPhrases::bundled().isPhantom(*text, std::chrono::milliseconds(0)))
        return {PhantomPhrases::bundled().withoutPhantom(*text, std::chrono::milliseconds(0)), std::nullopt};
    const QString srt = base + QStringLiteral(".srt");
    return {text->trimmed(), QFileInfo(srt).isFile() ? std::optional<QString>(srt) : std::nullopt};
}

// A cancelled child ends with whatever status its termination gave it; the job ends "cancelled".
int MediaTranscriber::Job::runChild(JobProcess& child)
{
    throwIfCancelled();
    const int exitStatus = child.run([this] { return cancelled.load(); });
    throwIfCancelled();
    return exitStatus;
}

void MediaTranscriber::Job::throwIfCancelled() const
{
    if (cancelled)
        throw MediaTranscriberError::cancelled();
}

// "[download]  42.7% of 3.10MiB at …" → "Baixando áudio do vídeo… 42%", 0.427.
void MediaTranscriber::Job::reportDownloadProgress(const QString& line)
{
    static const QRegularExpression percent(QStringLiteral("(\\d+(?:\\.\\d+)?)%"));
    const QRegularExpressionMatch match = percent.match(line);
    if (!match.hasMatch())
        return;
    const double value = std::clamp(match.captured(1).toDouble(), 0.0, 100.0);
    status(QStringLiteral("Baixando áudio do vídeo… %1%").arg(int(value)), value / 100.0);
}

// "whisper_print_progress_callback: progress =  45%" → "Transcrevendo… 45%", 0.45. whisper-cli
// may count past 100 % when it skips a silent stretch; the user never sees more than 100.
void MediaTranscriber::Job::reportWhisperProgress(const QString& line)
{
    static const QRegularExpression percent(QStringLiteral("(\\d+)%"));
    if (!line.contains(QLatin1String("progress")))
        return;
    const QRegularExpressionMatch match = percent.match(line);
    if (!match.hasMatch())
        return;
    const int value = std::clamp(match.captured(1).toInt(), 0, 100);
    status(QStringLiteral("Transcrevendo… %1%").arg(value), value / 100.0);
}

void MediaTranscriber::Job::status(const QString& text, std::optional<double> progress)
{
    post([job = shared_from_this(), text, progress] {
        if (MediaTranscriber* transcriber = job->owner.data(); transcriber && transcriber->onStatus)
            transcriber->onStatus(text, progress);
    });
}

// The answer reaches the owner if it is still there; the folder is cleaned either way, because a
// job nobody listens to anymore leaves nothing for anyone.
void MediaTranscriber::Job::deliver(const std::function<void(MediaTranscriber& transcriber)>& answer, const std::optional<QString>& srtURL)
{
    post([job = shared_from_this(), answer, srtURL] {
        if (std::exchange(job->delivered, true))
            return;
        if (MediaTranscriber* transcriber = job->owner.data()) {
            answer(*transcriber);
            job->cleanupKeepingSRT(srtURL);
        } else {
            job->cleanupKeepingSRT(std::nullopt);
        }
    });
}

// Posted events from one thread arrive in the order they were posted.
void MediaTranscriber::Job::post(std::function<void()> work)
{
    if (QCoreApplication* application = QCoreApplication::instance())
        QMetaObject::invokeMethod(application, std::move(work), Qt::QueuedConnection);
}

void MediaTranscriber::Job::cleanupKeepingSRT(const std::optional<QString>& srtURL)
{
    if (!directoryKept)
        return;
    if (!srtURL) {
        QDir(directory).removeRecursively();
        directoryKept = false;
        return;
    }
    removeEntries(directory, [](const QString& name) { return QFileInfo(name).suffix() != QLatin1String("srt"); });
}
