// Prints the figures of the native speech engine: how fast PocketSphinx decodes a FLEURS clip, how
// long start() takes until the microphone captures, and how soon text arrives in a first dictation
// (model loaded then) and a second one (decoder kept). Run it under scripts/with-harness.sh.
#include "BenchClock.h"
#include "Engines/SpeechTranscriber.h"
#include "Platform/SpeechRecognizer.h"
#include "Shared/Preferences/Settings.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

namespace {

// The shared test data sits beside the project folder.
const QString kClip = QStringLiteral(VOXARIA_TESTDATA_DIR "/speech/fleurs-en-005.ogg");
const QString kGoForward = QStringLiteral("/usr/share/pocketsphinx/test/data/goforward.raw");

long residentKilobytes()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    }
    return 0;
}

std::vector<qint16> decodeTo16kHz(const QString& path)
{
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"), {"-loglevel", "error", "-i", path, "-ar", "16000", "-ac", "1", "-f", "s16le", "-"});
    ffmpeg.waitForFinished(60000);
    const QByteArray bytes = ffmpeg.readAllStandardOutput();
    std::vector<qint16> samples(bytes.size() / 2);
    std::memcpy(samples.data(), bytes.constData(), samples.size() * 2);
    return samples;
}

// Feeds a whole recording at once and waits for the final text; answers the seconds it took.
double recogniseAtOnce(SpeechRecognizer& recognizer, const std::vector<qint16>& samples, QString& text)
{
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    QElapsedTimer clock;
    clock.start();
    auto request = recognizer.makeRequest(true);
    auto task = recognizer.startTask(request, [&](std::optional<SpeechRecognizer::Result> result, std::shared_ptr<const Error> error) {
        if (!(result && result->isFinal) && !error)
            return;
        std::lock_guard lock(mutex);
        text = result ? result->text : error->description();
        finished = true;
        done.notify_one();
    });
    request->append(samples);
    request->endAudio();
    std::unique_lock lock(mutex);
    done.wait(lock, [&] { return finished; });
    return clock.nsecsElapsed() / 1e9;
}

void benchRealTimeFactor()
{
    const std::vector<qint16> samples = decodeTo16kHz(kClip);
    auto recognizer = SpeechRecognizer::make(QStringLiteral("en-US"));
    if (samples.empty() || !recognizer) {
        std::printf("real-time factor: skipped (no clip or no en-US model)\n");
        return;
    }
    const double duration = double(samples.size()) / SpeechRecognizer::sampleRate;
    QString text;
    recogniseAtOnce(*recognizer, samples, text); // loads the decoder unless a dictation already did
    const double cpuBefore = BenchClock::seconds(CLOCK_PROCESS_CPUTIME_ID);
    const double wall = recogniseAtOnce(*recognizer, samples, text);
    const double cpu = BenchClock::seconds(CLOCK_PROCESS_CPUTIME_ID) - cpuBefore;
    std::printf("clip fleurs-en-005: %.2f s of audio, decoded in %.3f s wall (real-time factor %.3f), "
                "%.3f s CPU (real-time factor %.3f)\n",
        duration, wall, wall / duration, cpu, cpu / duration);
    std::printf("  text: %s\n", qPrintable(text));
}

void playIntoMicrophone(const QString& rawPath)
{
    QProcess player;
    player.start(QStringLiteral("paplay"), {"--raw", "--rate=16000", "--channels=1", "--format=s16le", "--latency-msec=20", rawPath});
    BenchClock::spinUntil([&] { return player.state() == QProcess::NotRunning; }, std::chrono::seconds(30));
}

void benchDictation(int number)
{
    SpeechTranscriber engine;
    QElapsedTimer clock;
    qint64 firstPartialMs = -1;
    qint64 finalMs = -1;
    QString finalText;
    clock.start();
    try {
        engine.start(
            [&](const QString&) {
                if (firstPartialMs < 0)
                    firstPartialMs = clock.elapsed();
            },
            [&](const QString& text) {
                finalMs = clock.elapsed();
                finalText = text;
            },
            [&](const Error& error) {
                finalMs = clock.elapsed();
                finalText = error.description();
            });
    } catch (const Error& error) {
        std::printf("dictation %d: start failed: %s\n", number, qPrintable(error.description()));
        return;
    }
    const double startMs = clock.nsecsElapsed() / 1e6;
    playIntoMicrophone(kGoForward);
    const qint64 finishedAt = clock.elapsed();
    engine.finish();
    BenchClock::spinUntil([&] { return finalMs >= 0; }, std::chrono::seconds(30));
    std::printf("dictation %d: start-to-capturing %.1f ms, first partial at %lld ms, final %lld ms after finish "
                "(\"%s\"), resident %ld MB\n",
        number, startMs, static_cast<long long>(firstPartialMs), static_cast<long long>(finalMs - finishedAt), qPrintable(finalText),
        residentKilobytes() / 1024);
}

}

int main(int argc, char** argv)
{
    QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", home.path().toUtf8());
    qputenv("XDG_DATA_HOME", home.path().toUtf8());
    QApplication app(argc, argv);
    Settings::shared().setLocaleIdentifier(QStringLiteral("en-US"));

    std::printf("resident before any dictation: %ld MB\n", residentKilobytes() / 1024);
    QProcess pactl;
    pactl.start(QStringLiteral("pactl"), {QStringLiteral("info")});
    if (pactl.waitForFinished() && pactl.exitCode() == 0) {
        benchDictation(1);
        benchDictation(2);
    } else {
        std::printf("dictations: skipped (no PulseAudio; run under scripts/with-harness.sh)\n");
    }
    benchRealTimeFactor();
    return 0;
}
