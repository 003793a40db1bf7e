// What the media pipeline itself costs around whisper-cli: a file job from transcribe() to
// onFinished, minus the time the fake whisper-cli reports for its own run. The phases say where the
// rest goes: the worker start and the FFmpeg extraction, the launch of the child (fork, exec and
// the Python interpreter's start), and the way back (exit seen, transcript read, answer posted).
#include "Media/MediaTranscriber.h"
#include "Shared/AppPaths.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

namespace {

qint64 realtimeNs()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return qint64(now.tv_sec) * 1000000000 + now.tv_nsec;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void installFakeWhisper(const QString& destination)
{
    QFile::remove(destination);
    QFile::copy(QStringLiteral(VOXARIA_FAKES_DIR "/whisper-cli"), destination);
    QFile::setPermissions(destination, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

struct Sample {
    double job = 0, whisperOwn = 0, toTranscribing = 0, launch = 0, back = 0;
};

// One job on `media`; the fake writes "<start ns> <end ns>" of its own run beside itself.
Sample runJob(const QString& media, const QString& whisper)
{
    Sample sample;
    MediaTranscriber transcriber;
    qint64 transcribingAt = 0, finishedAt = 0;
    transcriber.onStatus = [&](const QString& text, std::optional<double>) {
        if (!transcribingAt && text.startsWith(QStringLiteral("Transcrevendo")))
            transcribingAt = realtimeNs();
    };
    transcriber.onFinished = [&](const MediaTranscriber::Output&) { finishedAt = realtimeNs(); };
    transcriber.onError = [&](const Error& error) {
        std::fprintf(stderr, "error: %s\n", qPrintable(error.description()));
        finishedAt = realtimeNs();
    };
    const qint64 startedAt = realtimeNs();
    transcriber.transcribe(MediaTranscriber::Source::file(media));
    while (!finishedAt)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
    QFile runtime(whisper + QStringLiteral(".runtime"));
    runtime.open(QIODevice::ReadOnly);
    const QList<QByteArray> stamps = runtime.readAll().split(' ');
    const qint64 childStart = stamps.value(0).toLongLong(), childEnd = stamps.value(1).toLongLong();
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
    QTemporaryDir home;
    qputenv("XDG_DATA_HOME", home.path().toUtf8());
    qputenv("XDG_CONFIG_HOME", home.path().toUtf8());
    qputenv("TMPDIR", home.path().toUtf8());
    QCoreApplication app(argc, argv);
    QDir().mkpath(AppPaths::modelsFolder());
    QFile model(AppPaths::modelsFolder() + QStringLiteral("/ggml-small-q5_1.bin"));
    model.open(QIODevice::WriteOnly);
    const QString whisper = QCoreApplication::applicationDirPath() + QStringLiteral("/whisper-cli");
    installFakeWhisper(whisper);

    for (const char* name : {"jfk.wav", "jfk.mp3"}) {
        const QString media = QStringLiteral(VOXARIA_TESTDATA_DIR "/speech/") + QLatin1String(name);
        std::vector<double> job, own, overhead, toTranscribing, launch, back;
        for (int run = 0; run < 15; ++run) {
            const Sample s = runJob(media, whisper);
            job.push_back(s.job);
            own.push_back(s.whisperOwn);
            overhead.push_back(s.job - s.whisperOwn);
            toTranscribing.push_back(s.toTranscribing);
            launch.push_back(s.launch);
            back.push_back(s.back);
        }
        std::printf("%s (11 s of speech), medians of 15 jobs:\n", name);
        std::printf("  job %.1f ms = whisper-cli's own run %.1f ms + pipeline overhead %.1f ms\n", median(job),
                    median(own), median(overhead));
        std::printf("  overhead: start + extraction %.1f ms, child launch %.1f ms (Python start-up included), "
                    "exit -> onFinished %.1f ms\n", median(toTranscribing), median(launch), median(back));
    }
    QFile::remove(whisper);
    QFile::remove(whisper + QStringLiteral(".runtime"));
    QFile::remove(whisper + QStringLiteral(".lastargs"));
    QFile::remove(whisper + QStringLiteral(".lastinput.wav"));
    return 0;
}
