// What the media pipeline itself costs around whisper-cli: a file job from transcribe() to
// onFinished, minus the time the fake whisper-cli reports for its own run. The phases say where the
// rest goes: the worker start and the FFmpeg extraction, the launch of the child (fork, exec and
// the Python interpreter's start), and the way back (exit seen, transcript read, answer posted).
// A bare QProcess run of the same fake on the main thread gives the launch and exit costs that any
// caller pays (on a loaded machine mostly the interpreter's start and finalisation), so the last
// figure is what the pipeline adds on top of running the program at all.
#include "BenchClock.h"
#include "BenchHome.h"
#include "Media/MediaTranscriber.h"
#include "Platform/Linux/Media/FFmpegMediaReader.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QProcess>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

namespace {

void installFakeWhisper(const QString& destination)
{
    QFile::remove(destination);
    QFile::copy(QStringLiteral(VOXARIA_FAKES_DIR "/whisper-cli"), destination);
    QFile::setPermissions(destination, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

struct Sample {
    double job = 0, whisperOwn = 0, toTranscribing = 0, launch = 0, back = 0;
};

// The fake's own start and end, in ns since the epoch.
std::pair<qint64, qint64> readRuntime(const QString& whisper)
{
    QFile runtime(whisper + QStringLiteral(".runtime"));
    runtime.open(QIODevice::ReadOnly);
    const QList<QByteArray> stamps = runtime.readAll().split(' ');
    return {stamps.value(0).toLongLong(), stamps.value(1).toLongLong()};
}

// The same program run directly: from start() to its first line, and from its last line to
// waitForFinished() returning.
std::pair<double, double> bareRun(const QString& whisper, const QString& wav, const QString& base)
{
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    const qint64 before = BenchClock::nanoseconds(CLOCK_REALTIME);
    process.start(whisper, {QStringLiteral("-f"), wav, QStringLiteral("-otxt"), QStringLiteral("-of"), base});
    process.waitForFinished(-1);
    const qint64 after = BenchClock::nanoseconds(CLOCK_REALTIME);
    const auto [childStart, childEnd] = readRuntime(whisper);
    return {(childStart - before) / 1e6, (after - childEnd) / 1e6};
}

// One job on `media`; the fake writes "<start ns> <end ns>" of its own run beside itself.
Sample runJob(const QString& media, const QString& whisper)
{
    Sample sample;
    MediaTranscriber transcriber([] { return std::make_unique<FFmpegMediaReader>(); }, {});
    qint64 transcribingAt = 0, finishedAt = 0;
    // A real event loop sleeps until the answer comes; a processEvents() spin would take a core
    // from the child on a small machine and be counted as the pipeline's cost.
    QEventLoop loop;
    transcriber.onStatus = [&](const QString& text, std::optional<double>) {
        if (!transcribingAt && text.startsWith(QStringLiteral("Transcrevendo")))
            transcribingAt = BenchClock::nanoseconds(CLOCK_REALTIME);
    };
    transcriber.onFinished = [&](const MediaTranscriber::Output&) {
        finishedAt = BenchClock::nanoseconds(CLOCK_REALTIME);
        loop.quit();
    };
    transcriber.onError = [&](const Error& error) {
        std::fprintf(stderr, "error: %s\n", qPrintable(error.description()));
        finishedAt = BenchClock::nanoseconds(CLOCK_REALTIME);
        loop.quit();
    };
    const qint64 startedAt = BenchClock::nanoseconds(CLOCK_REALTIME);
    transcriber.transcribe(MediaTranscriber::Source::file(media));
    if (!finishedAt)
        loop.exec();
    const auto [childStart, childEnd] = readRuntime(whisper);
    sample.job = (finishedAt - startedAt) / 1e6;
    sample.whisperOwn = (childEnd - childStart) / 1e6;
    sample.toTranscribing = (transcribingAt - startedAt) / 1e6;
    sample.launch = (childStart - transcribingAt) / 1e6;
    sample.back = (finishedAt - childEnd) / 1e6;
    if (const std::optional<QString> folder = transcriber.workDir())
        QDir(*folder).removeRecursively();
    return sample;
}

}

int main(int argc, char** argv)
{
    BenchHome home;
    QCoreApplication app(argc, argv);
    BenchHome::placeEmptyModel();
    const QString whisper = QCoreApplication::applicationDirPath() + QStringLiteral("/whisper-cli");
    installFakeWhisper(whisper);

    // Bare runs and jobs take turns, so a change in the machine's load hits both alike.
    constexpr int kRuns = 15;
    const QStringList names = {QStringLiteral("jfk.wav"), QStringLiteral("jfk.mp3")};
    std::vector<double> bareLaunch, bareBack;
    std::vector<std::vector<Sample>> samples(names.size());
    for (int run = 0; run < kRuns; ++run) {
        const auto [launch, back]
            = bareRun(whisper, QStringLiteral(VOXARIA_TESTDATA_DIR "/speech/jfk.wav"), home.path() + QStringLiteral("/bare"));
        bareLaunch.push_back(launch);
        bareBack.push_back(back);
        for (qsizetype i = 0; i < names.size(); ++i)
            samples[i].push_back(runJob(QStringLiteral(VOXARIA_TESTDATA_DIR "/speech/") + names[i], whisper));
    }
    std::printf("bare QProcess run of the fake: launch %.1f ms, exit -> waitForFinished %.1f ms (medians of %d)\n",
        BenchClock::median(bareLaunch), BenchClock::median(bareBack), kRuns);
    for (qsizetype i = 0; i < names.size(); ++i) {
        const auto figure = [&](double Sample::*field) {
            std::vector<double> values;
            for (const Sample& s : samples[i])
                values.push_back(s.*field);
            return BenchClock::median(values);
        };
        std::vector<double> overhead;
        for (const Sample& s : samples[i])
            overhead.push_back(s.job - s.whisperOwn);
        std::printf("%s (11 s of speech), medians of %d jobs:\n", qPrintable(names[i]), kRuns);
        std::printf("  job %.1f ms = whisper-cli's own run %.1f ms + pipeline overhead %.1f ms\n", figure(&Sample::job),
            figure(&Sample::whisperOwn), BenchClock::median(overhead));
        std::printf("  overhead: start + extraction %.1f ms, child launch %.1f ms (Python start-up included), "
                    "exit -> onFinished %.1f ms\n",
            figure(&Sample::toTranscribing), figure(&Sample::launch), figure(&Sample::back));
        std::printf("  added by the pipeline beyond a bare run: %.1f ms\n",
            BenchClock::median(overhead) - BenchClock::median(bareLaunch) - BenchClock::median(bareBack));
    }
    QFile::remove(whisper);
    QFile::remove(whisper + QStringLiteral(".runtime"));
    QFile::remove(whisper + QStringLiteral(".lastargs"));
    QFile::remove(whisper + QStringLiteral(".lastinput.wav"));
    return 0;
}
