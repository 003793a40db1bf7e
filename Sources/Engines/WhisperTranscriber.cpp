#include "WhisperTranscriber.h"

#include "PhantomPhrases.h"
#include "Shared/AppPaths.h"
#include "Shared/Logging.h"
#include "Shared/ProcessorCores.h"
#include "Shared/StrictUtf8.h"
#include "Shared/WavWriter.h"
#include "SpeechGate.h"
#include "WhisperCliFeatures.h"
#include "WhisperDevice.h"
#include "WhisperError.h"
#include "WhisperModelFile.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTimer>

#include <atomic>
#include <mutex>
#include <vector>

namespace {

// Only the last line of whisper-cli's error output is ever shown; a child that writes megabytes
// of diagnostics must not grow our memory with it.
constexpr qsizetype kErrorTailLimit = qsizetype{64} * 1024;
// A cancelled whisper-cli gets this long to leave after the polite signal before it is killed.
constexpr int kTerminateGraceMs = 2000;
// With --no-timestamps whisper.cpp drops the rest of a 30-second window when its decoder stops
// early; recordings longer than this run with timestamps, which make it go on to the next segment.
constexpr qint64 kSegmentedAfterBytes = qint64{25} * WhisperTranscriber::kSampleRate * 2;
constexpr qint64 kBytesPerSecond = qint64{2} * WhisperTranscriber::kSampleRate;
// What whisper-cli writes when the model file cannot be loaded.
constexpr char kModelLoadFailure[] = "failed to initialize whisper context";

QString newRecordingPath()
{
    return AppPaths::scratchPath(QStringLiteral("voxaria-"), QStringLiteral(".wav"));
}

QString withoutExtension(const QString& path)
{
    return path.left(path.size() - QFileInfo(path).suffix().size() - 1);
}

void removeDictationFiles(const QString& wavPath)
{
    QFile::remove(wavPath);
    QFile::remove(withoutExtension(wavPath) + QStringLiteral(".txt"));
}

// The last non-empty line of the error output, or "código N" when there is none or it is not UTF-8.
QString failureDetail(const QByteArray& errorOutput, int exitStatus)
{
    if (const std::optional<QString> text = decodeStrictUtf8(errorOutput)) {
        const QStringList lines = text->split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        if (!lines.isEmpty())
            return lines.last();
    }
    return QStringLiteral("código ") + QString::number(exitStatus);
}

// With timestamps on, the .txt holds one line per segment.
QString joinedSegments(const QString& text)
{
    QStringList segments;
    for (const QString& line : text.split(QLatin1Char('\n'))) {
        if (!line.trimmed().isEmpty())
            segments << line.trimmed();
    }
    return segments.join(QLatin1Char(' '));
}

void appendToTail(QByteArray& tail, const QByteArray& chunk)
{
    tail += chunk;
    if (tail.size() <= 2 * kErrorTailLimit)
        return;
    tail = tail.right(kErrorTailLimit);
    // Start at a line boundary so a cut multi-byte character cannot spoil the decoding.
    const qsizetype newline = tail.indexOf('\n');
    tail = newline >= 0 ? tail.mid(newline + 1) : QByteArray();
}

}

// What the capture thread touches while recording: the converter, the open WAV and the speech gate.
// The main thread reaches it only after the capture has stopped.
struct WhisperTranscriber::Recording {
    std::unique_ptr<AudioConverter> converter;
    std::unique_ptr<WavWriter> file;
    std::vector<qint16> converted;
    SpeechGate gate;
    QElapsedTimer sinceKeyDown;
    std::atomic<qint64> capturing{-1};

    void append(QByteArrayView buffer)
    {
        if (capturing.load(std::memory_order_relaxed) < 0)
            capturing.store(sinceKeyDown.elapsed(), std::memory_order_relaxed);
        converted.clear();
        // A buffer that fails to convert or to be written is dropped; the recording goes on.
        if (!converter->convert(buffer, converted) || converted.empty())
            return;
        write();
    }

    // The end of the recording: what the resampler still holds goes in before the file is closed.
    void finalise()
    {
        converted.clear();
        converter->flush(converted);
        if (!converted.empty())
            write();
        file->close();
    }

    void write()
    {
        gate.add(converted);
        if (!file->append(converted.data(), converted.size()))
            qCDebug(lcWhisper) << "dropped a buffer:" << file->errorString();
    }
};

WhisperTranscriber::WhisperTranscriber(std::unique_ptr<AudioInput> audioEngine, ConverterFactory makeConverter,
    PlatformServices::InputWaitProbe waitsOnStandardInput, DictationOptions options, QObject* parent)
    : TranscriptionEngine(parent)
    , m_audioEngine(std::move(audioEngine))
    , m_makeConverter(std::move(makeConverter))
    , m_waitsOnStandardInput(std::move(waitsOnStandardInput))
    , m_options(std::move(options))
{
    m_deadline.setSingleShot(true);
    connect(&m_deadline, &QTimer::timeout, this, &WhisperTranscriber::giveUp);
}

// A minute to load the largest model from a cold disk on a slow machine, and ten times the
// recording to transcribe it: a slow CPU runs the large models at a few times real time.
std::chrono::milliseconds WhisperTranscriber::defaultAnswerBound(std::chrono::milliseconds recording)
{
    return std::chrono::minutes(1) + 10 * recording;
}

WhisperTranscriber::~WhisperTranscriber()
{
    cancel();
}

QStringList WhisperTranscriber::binaryCandidates()
{
    return {QCoreApplication::applicationDirPath() + QStringLiteral("/whisper-cli"), QStringLiteral("/usr/local/bin/whisper-cli"),
        QStringLiteral("/usr/bin/whisper-cli")};
}

std::optional<QString> WhisperTranscriber::firstExecutable(const QStringList& candidates)
{
    for (const QString& candidate : candidates) {
        const QFileInfo info(candidate);
        if (info.isFile() && info.isExecutable())
            return candidate;
    }
    return std::nullopt;
}

std::optional<QString> WhisperTranscriber::binaryURL()
{
    if (std::optional<QString> binary = firstExecutable(binaryCandidates()))
        return binary;
    // Last, whatever PATH leads to: Homebrew on Linux, Nix profiles, ~/.local/bin.
    const QString onPath = QStandardPaths::findExecutable(QStringLiteral("whisper-cli"));
    if (onPath.isEmpty())
        return std::nullopt;
    return onPath;
}

std::optional<QString> WhisperTranscriber::modelURL(const QString& name)
{
    const QDir models(AppPaths::modelsFolder());
    // The setting names a file inside the models folder: a path out of it (absolute, "../", or a
    // ":" Qt resource) finds nothing there.
    const bool insideModels = !name.contains(QLatin1Char('/')) && !name.startsWith(QLatin1Char(':'));
    if (insideModels && QFileInfo(models.filePath(name)).isFile())
        return models.filePath(name);
    if (!models.exists())
        return std::nullopt;
    // Listed by name, so "the first" is the same on every machine.
    const QStringList entries = models.entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name);
    QStringList bins;
    // The voice activity model sits beside the Whisper models but is none.
    const QString vadModel = QFileInfo(WhisperCliFeatures::vadModelPath()).fileName();
    for (const QString& entry : entries) {
        if (QFileInfo(entry).suffix() == QLatin1String("bin") && entry != vadModel)
            bins << entry;
    }
    for (const QString& bin : bins) {
        if (bin.contains(QLatin1String("large")))
            return models.filePath(bin);
    }
    if (!bins.isEmpty())
        return models.filePath(bins.first());
    return std::nullopt;
}

bool WhisperTranscriber::isAvailable(const QString& modelFileName)
{
    return binaryURL() && modelURL(modelFileName);
}

void WhisperTranscriber::start(PartialCallback, FinalCallback onFinal, ErrorCallback onError)
{
    const std::optional<QString> binary = binaryURL();
    if (!binary)
        throw WhisperError::notInstalled();
    const std::optional<QString> model = modelURL(m_options.whisperModelFileName);
    if (!model)
        throw WhisperError::modelMissing();

    m_sinceKeyDown.start();
    m_timeline = {};
    m_heard = {};
    m_modelReadyAtRelease.reset();
    m_onFinal = std::move(onFinal);
    m_onError = std::move(onError);
    m_cancelled = false;

    const auto unsupported = [] { return WhisperError::transcriptionFailed(QStringLiteral("formato de áudio não suportado")); };
    const std::optional<AudioFormat> microphone = m_audioEngine->format();
    if (!microphone || !microphone->isUsable())
        throw unsupported();
    auto recording = std::make_shared<Recording>();
    recording->converter = m_makeConverter(*microphone, kSampleRate);
    if (!recording->converter)
        throw unsupported();

    recording->sinceKeyDown = m_sinceKeyDown;
    m_wavURL = newRecordingPath();
    recording->file = std::make_unique<WavWriter>(*m_wavURL, kSampleRate, 1);
    if (!recording->file->open()) {
        const QString reason = recording->file->errorString();
        cleanup();
        throw PlatformError(QStringLiteral("Não foi possível criar a gravação: ") + reason);
    }
    m_audioFile = recording;
    try {
        // The capture thread holds the recording itself, never the engine.
        m_audioEngine->start([recording](QByteArrayView buffer) { recording->append(buffer); },
            [path = *m_wavURL] { qCDebug(lcWhisper) << "recording to" << path; }, [this](const Error& error) { abandonRecording(error); });
    } catch (const Error&) {
        m_audioFile.reset();
        cleanup();
        throw;
    }
    launchWhenStdinIsRead(*binary, *model);
}

// The recording is closed and heard once the capture thread has handled its last buffer and let go
// of it; one dropped meanwhile (a cancel, a lost microphone) is not answered for.
void WhisperTranscriber::stopRecording(std::function<void(const Recorded&)> onStopped)
{
    m_audioEngine->stop([this, recording = m_audioFile, onStopped = std::move(onStopped)] {
        if (recording != m_audioFile)
            return;
        m_audioFile.reset();
        // Closing writes the WAV's final sizes.
        recording->finalise();
        m_timeline.capturing = recording->capturing.load(std::memory_order_relaxed);
        onStopped({recording->file->dataBytes(), recording->gate.hearing()});
    });
}

// Nothing recorded is wanted any more: the capture thread lets go of the recording by itself.
void WhisperTranscriber::dropRecording()
{
    m_audioEngine->stop({});
    m_audioFile.reset();
}

// Starts whisper-cli now, reading the recording from standard input at release, if it can; the
// program's --help is asked once per program file, without waiting for it.
void WhisperTranscriber::launchWhenStdinIsRead(const QString& binary, const QString& model)
{
    // whisper-cli reads standard input since 1.5.0 and lists --vad since 1.7.6: one that lists it
    // surely reads standard input; one between the two starts at the release, as an older one does.
    if (const std::optional<bool> known = WhisperCliFeatures::knownVadSupport(binary)) {
        if (*known)
            launch(binary, model, QStringLiteral("-"), true);
        return;
    }
    WhisperCliFeatures::probeVadSupport(binary, [binary, model, engine = QPointer<WhisperTranscriber>(this)](bool readsStdin) {
        if (readsStdin && engine && engine->m_audioFile && !engine->m_process)
            engine->launch(binary, model, QStringLiteral("-"), true);
    });
}

// The microphone went away mid-dictation: half a recording is not worth transcribing.
void WhisperTranscriber::abandonRecording(const Error& error)
{
    qCWarning(lcWhisper) << "recording abandoned:" << error.description();
    dropRecording();
    retireProcess();
    cleanup();
    answerWithError(error);
}

void WhisperTranscriber::finish()
{
    m_timeline.released = m_sinceKeyDown.elapsed();
    if (m_cancelled || !m_audioFile) {
        cleanup();
        return;
    }
    stopRecording([this](const Recorded& recorded) { transcribe(recorded); });
}

void WhisperTranscriber::transcribe(const Recorded& recorded)
{
    m_heard = recorded.hearing;
    if (m_heard.verdict != SpeechGate::Verdict::speech) {
        dropUnheard(m_heard.verdict);
        return;
    }
    if (m_exitedEarly) {
        QTimer::singleShot(0, this, std::exchange(m_exitedEarly, nullptr));
        return;
    }
    armDeadline(recorded.bytes);
    if (m_process) {
        // whisper-cli reads its standard input only once its model is loaded: waiting in that read
        // now, it loaded while the user spoke.
        m_modelReadyAtRelease = m_waitsOnStandardInput(m_process->processId());
        sendRecording();
        return;
    }
    const std::optional<QString> binary = binaryURL();
    const std::optional<QString> model = modelURL(m_options.whisperModelFileName);
    if (!binary || !model) {
        // The program or the model vanished while the key was held: the controller still waits for
        // an answer, so say which one is missing.
        cleanup();
        const WhisperError error = binary ? WhisperError::modelMissing() : WhisperError::notInstalled();
        QTimer::singleShot(0, this, [this, error] { answerWithError(error); });
        return;
    }
    m_timeline.inputClosed = m_sinceKeyDown.elapsed();
    launch(*binary, *model, *m_wavURL, recorded.bytes > kSegmentedAfterBytes);
}

// Whisper would make up a sentence out of silence, a hum or a cough; a whisper-cli started at key
// down never gets the recording. Nothing heard is answered empty; a voice too faint, with the way
// to be heard.
void WhisperTranscriber::dropUnheard(SpeechGate::Verdict verdict)
{
    const bool tooQuiet = verdict == SpeechGate::Verdict::tooQuiet;
    qCInfo(lcWhisper) << (tooQuiet ? "the voice was too faint to transcribe: whisper-cli is not run"
                                   : "nothing speech-like was recorded: whisper-cli is not run");
    m_exitedEarly = nullptr;
    retireProcess();
    cleanup();
    QTimer::singleShot(0, this, [this, tooQuiet] { tooQuiet ? answerWithError(WhisperError::tooQuiet()) : answerWithText(QString()); });
}

void WhisperTranscriber::armDeadline(qint64 recordedBytes)
{
    m_deadline.start(m_answerBound(std::chrono::milliseconds(recordedBytes * 1000 / kBytesPerSecond)));
}

// whisper-cli hung, or is far slower than any machine should be: it is ended, and the user may
// dictate again at once.
void WhisperTranscriber::giveUp()
{
    qCWarning(lcWhisper) << "whisper-cli gave no answer within" << m_deadline.interval() << "ms of the release; it is ended";
    retireProcess();
    cleanup();
    answerWithError(WhisperError::timedOut());
}

// `segmented` leaves out --no-timestamps, so no sentence is dropped. A child started at key down
// cannot know how long the dictation will be, so it always runs segmented.
// A dictation is a sentence or two: greedy decoding (-bs 1) serves it at a fraction of the cost of
// the default beam search of 5 (README, "Engines"). At temperature 0 greedy runs one decoder;
// best-of only sizes the temperature fallbacks, which stay for the rare decoding that fails.
// whisper-cli computes on at most 4 threads unless told; every core helps, its second hardware
// thread does not. Its log is kept (no --no-prints): it names the device it ran on.
QStringList WhisperTranscriber::arguments(const QString& model, const QString& input, bool segmented) const
{
    static const int threads = ProcessorCores::physical();
    const QString language = m_options.localeIdentifier.left(2).toLower();
    // whisper-cli refuses an empty language (it prints its usage and exits with status 0); with no
    // language set, it should recognise whichever one is spoken.
    QStringList args{QStringLiteral("-m"), model, QStringLiteral("-f"), input, QStringLiteral("-l"),
        language.isEmpty() ? QStringLiteral("auto") : language, QStringLiteral("-t"), QString::number(threads), QStringLiteral("-bs"),
        QStringLiteral("1")};
    if (!segmented)
        args << QStringLiteral("--no-timestamps");
    return args << QStringLiteral("-otxt") << QStringLiteral("-of") << withoutExtension(*m_wavURL);
}

void WhisperTranscriber::launch(const QString& binary, const QString& model, const QString& input, bool segmented)
{
    const QString outputBase = withoutExtension(*m_wavURL);
    auto* process = new QProcess(this);
    m_process = process;
    m_model = model;
    m_readsStdin = input == QLatin1String("-");
    m_segmented = segmented;
    process->setProgram(binary);
    process->setArguments(arguments(model, input, segmented));
    // Nothing on standard output is used; the null device can never fill up and stall the child.
    process->setStandardOutputFile(QProcess::nullDevice());

    auto errorOutput = std::make_shared<QByteArray>();
    connect(process, &QProcess::readyReadStandardError, this, [this, process, errorOutput] {
        const QByteArray chunk = process->readAllStandardError();
        if (m_timeline.audioRead < 0 && chunk.contains("read_audio_data"))
            m_timeline.audioRead = m_sinceKeyDown.elapsed();
        appendToTail(*errorOutput, chunk);
    });
    connect(process, &QProcess::finished, this, [this, process, outputBase, errorOutput](int exitCode, QProcess::ExitStatus exitStatus) {
        appendToTail(*errorOutput, process->readAllStandardError());
        process->deleteLater();
        // A crash counts as a failure even when the signal number reads as 0.
        const int status = exitStatus == QProcess::CrashExit && exitCode == 0 ? -1 : exitCode;
        // A child that ends before the release is answered for after it, as any failure is.
        if (m_audioFile)
            m_exitedEarly = [this, status, outputBase, errorOutput] { complete(status, outputBase, *errorOutput); };
        else
            complete(status, outputBase, *errorOutput);
    });
    // Queued: a launch failure is answered later, never from inside finish().
    connect(
        process, &QProcess::errorOccurred, this,
        [this, process](QProcess::ProcessError error) {
            if (error != QProcess::FailedToStart)
                return;
            qCWarning(lcWhisper) << "cannot launch whisper-cli:" << process->errorString();
            process->deleteLater();
            m_process.clear();
            // Started at key down: the release tries again on the file and answers for both.
            if (m_audioFile)
                return;
            cleanup();
            answerWithError(PlatformError(process->errorString()));
        },
        Qt::QueuedConnection);
    qCDebug(lcWhisper) << "running" << binary << process->arguments();
    process->start(m_readsStdin ? QIODevice::ReadWrite : QIODevice::ReadOnly);
}

// The finished WAV goes to the waiting child through the event loop; the end of its standard input
// tells it the recording is complete.
void WhisperTranscriber::sendRecording()
{
    QFile wav(*m_wavURL);
    const QByteArray bytes = wav.open(QIODevice::ReadOnly) ? wav.readAll() : QByteArray();
    auto unsent = std::make_shared<qint64>(bytes.size());
    connect(m_process, &QProcess::bytesWritten, this, [this, unsent](qint64 written) {
        *unsent -= written;
        if (*unsent <= 0)
            m_timeline.inputClosed = m_sinceKeyDown.elapsed();
    });
    m_process->write(bytes);
    m_process->closeWriteChannel();
}

void WhisperTranscriber::complete(int exitStatus, const QString& outputBase, const QByteArray& errorOutput)
{
    m_process.clear();
    markDone();
    if (const QString device = WhisperDevice::fromLog(errorOutput); !device.isEmpty())
        qCInfo(lcWhisper).noquote() << "whisper-cli ran on" << device;
    if (m_cancelled) {
        cleanup();
        return;
    }
    QFile transcript(outputBase + QStringLiteral(".txt"));
    std::optional<QString> text;
    if (exitStatus == 0 && transcript.open(QIODevice::ReadOnly))
        text = decodeTranscript(transcript.readAll());
    if (text)
        text = m_segmented ? joinedSegments(*text) : text->trimmed();
    // An empty answer or a failure may be a model whisper-cli could not read.
    if (const std::optional<WhisperError> damaged = text && !text->isEmpty() ? std::nullopt : damagedModel(errorOutput)) {
        qCWarning(lcWhisper) << "whisper-cli cannot load the model" << m_model;
        answerWithError(*damaged);
    } else if (text) {
        answerWithText(PhantomPhrases::bundled().withoutPhantom(*text, m_heard.voiced));
    } else {
        qCWarning(lcWhisper) << "whisper-cli failed with status" << exitStatus;
        answerWithError(WhisperError::transcriptionFailed(failureDetail(errorOutput, exitStatus)));
    }
    cleanup();
}

std::optional<WhisperError> WhisperTranscriber::damagedModel(const QByteArray& errorOutput) const
{
    if (errorOutput.contains(kModelLoadFailure) || WhisperModelFile::isCutShort(m_model))
        return WhisperError::modelDamaged(QFileInfo(m_model).fileName());
    return std::nullopt;
}

void WhisperTranscriber::markDone()
{
    m_deadline.stop();
    if (m_timeline.done < 0)
        m_timeline.done = m_sinceKeyDown.elapsed();
}

void WhisperTranscriber::answerWithText(const QString& text)
{
    markDone();
    m_onError = nullptr;
    if (FinalCallback onFinal = std::exchange(m_onFinal, nullptr))
        onFinal(text);
}

std::optional<TranscriptionEngine::Timing> WhisperTranscriber::timing() const
{
    if (m_timeline.done < 0)
        return std::nullopt;
    const auto span = [](qint64 from, qint64 to) { return from < 0 || to < 0 ? QStringLiteral("?") : QString::number(to - from); };
    return Timing{QStringLiteral("key down → capturing %1, release → input closed %2, input closed → whisper-cli done %3")
                      .arg(span(0, m_timeline.capturing), span(m_timeline.released, m_timeline.inputClosed),
                          span(m_timeline.inputClosed, m_timeline.done)),
        timingNote(), m_sinceKeyDown, m_timeline.done};
}

// What the spans cannot say: whether whisper-cli ran at all, and whether its model was ready when
// the key was released.
QString WhisperTranscriber::timingNote() const
{
    if (m_timeline.released < 0)
        return QStringLiteral("recording abandoned before the release");
    if (m_heard.verdict != SpeechGate::Verdict::speech)
        return QStringLiteral("whisper-cli not run: the gate heard %1 (%2 ms voiced)")
            .arg(m_heard.verdict == SpeechGate::Verdict::tooQuiet ? QStringLiteral("a voice too faint") : QStringLiteral("no speech"))
            .arg(m_heard.voiced.count());
    if (!m_readsStdin)
        return QStringLiteral("model loaded after release");
    const QString readAfter = m_timeline.audioRead < 0 ? QStringLiteral("?") : QString::number(m_timeline.audioRead - m_timeline.released);
    const QString model = !m_modelReadyAtRelease ? QStringLiteral("model state at release unknown")
        : *m_modelReadyAtRelease                 ? QStringLiteral("model loaded while recording")
                                                 : QStringLiteral("model still loading at release");
    // whisper-cli says "read_audio_data: read N bytes" once it has read its input to the end.
    return model + QStringLiteral("; audio read %1 ms after release").arg(readAfter);
}

void WhisperTranscriber::answerWithError(const Error& error)
{
    markDone();
    m_onFinal = nullptr;
    if (ErrorCallback onError = std::exchange(m_onError, nullptr))
        onError(error);
}

void WhisperTranscriber::cancel()
{
    m_cancelled = true;
    m_exitedEarly = nullptr;
    m_deadline.stop();
    dropRecording();
    retireProcess();
    cleanup();
    m_onFinal = nullptr;
    m_onError = nullptr;
}

void WhisperTranscriber::retireProcess()
{
    QProcess* process = m_process.data();
    m_process.clear();
    if (!process)
        return;
    // The child may still write its transcript while it dies, and this engine may be gone by then:
    // the process owns its own clean-up from here on.
    const QString wavPath = m_wavURL.value_or(QString());
    process->disconnect(this);
    process->setParent(nullptr);
    connect(process, &QProcess::finished, process, [process, wavPath] {
        if (!wavPath.isEmpty())
            removeDictationFiles(wavPath);
        process->deleteLater();
    });
    process->terminate();
    QTimer::singleShot(kTerminateGraceMs, process, &QProcess::kill);
}

void WhisperTranscriber::cleanup()
{
    if (!m_wavURL)
        return;
    removeDictationFiles(*m_wavURL);
    m_wavURL.reset();
}
