// Prints the figures of the live engine on a model of the real Nemotron size (made-up weights cost
// what the real ones cost): model load time cold and warm, first partial text after speech starts,
// the cadence of partial texts, the stream's real-time factor, release to final text over dictations
// of 5, 10 and 30 s fed at the microphone's pace, resident memory with the model loaded and after
// its release, and wake-ups while idle. The model is written once into build/bench/live-models/.
// Usage: LiveSpeechBench [Q4_K_M|Q8_0] [dictations per length, 10]
#include "BenchClock.h"
#include "Platform/Linux/LiveSpeech/LiveSpeechEngine.h"
#include "ProcessStats.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

constexpr int kRate = SpeechRecognizer::sampleRate;
constexpr std::size_t kBuffer = kRate / 50; // the microphone's 20 ms

QString modelFor(const QString& quantization)
{
    const QString folder = QStringLiteral(VOXARIA_BENCH_MODEL_CACHE);
    const QString path = folder + QStringLiteral("/nemotron-real-%1.gguf").arg(quantization);
    if (!QFileInfo::exists(path)) {
        QDir().mkpath(folder);
        std::printf("writing the real-size %s model (once)...\n", qPrintable(quantization));
        QProcess::execute(QStringLiteral("python3"),
            {QStringLiteral(VOXARIA_BENCH_DIR "/make_nemotron_model.py"), QStringLiteral("real"), quantization, path});
    }
    return path;
}

// Drops the file from the page cache, so the next load reads it from the disk.
void evictFromCache(const QString& path)
{
    const int fd = open(QFile::encodeName(path).constData(), O_RDONLY);
    if (fd < 0)
        return;
    fdatasync(fd);
    posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    close(fd);
}

// Every FLEURS recording, Portuguese then English, one after the other at 16 kHz mono.
std::vector<qint16> speechPool()
{
    std::vector<qint16> pool;
    for (const char* language : {"pt", "en"}) {
        for (int i = 0; i < 6; ++i) {
            QProcess ffmpeg;
            ffmpeg.start(QStringLiteral("ffmpeg"),
                {"-loglevel", "error", "-i",
                    QStringLiteral(VOXARIA_TESTDATA_DIR "/speech/fleurs-%1-%2.ogg").arg(language).arg(i, 3, 10, QLatin1Char('0')), "-ar",
                    "16000", "-ac", "1", "-f", "s16le", "-"});
            ffmpeg.waitForFinished(60000);
            const QByteArray bytes = ffmpeg.readAllStandardOutput();
            const auto* samples = reinterpret_cast<const qint16*>(bytes.constData());
            pool.insert(pool.end(), samples, samples + bytes.size() / 2);
        }
    }
    return pool;
}

// One dictation's timeline, in ms from its first sample.
struct Timeline {
    std::vector<double> partials;
    double released = -1;
    double final = -1;
    QString text;
};

class Dictation {
public:
    Timeline run(LiveSpeechEngine& engine, std::span<const qint16> audio, bool atMicrophonePace)
    {
        auto request = engine.makeRequest(QStringLiteral("pt-BR"));
        auto task = engine.startTask(request, [this](std::optional<SpeechRecognizer::Result> result, std::shared_ptr<const Error> error) {
            std::lock_guard lock(m_mutex);
            const double now = m_clock.nsecsElapsed() / 1e6;
            if (result && result->isFinal) {
                m_timeline.final = now;
                m_timeline.text = result->text;
            } else if (result) {
                m_timeline.partials.push_back(now);
            } else if (error) {
                m_timeline.final = now;
                m_timeline.text = error->description();
            }
            m_changed.notify_all();
        });
        m_clock.start();
        const auto start = std::chrono::steady_clock::now();
        for (std::size_t at = 0; at < audio.size(); at += kBuffer) {
            request->append(audio.subspan(at, std::min(kBuffer, audio.size() - at)));
            if (atMicrophonePace)
                std::this_thread::sleep_until(start + std::chrono::microseconds((at + kBuffer) * 1000000 / kRate));
        }
        {
            std::lock_guard lock(m_mutex);
            m_timeline.released = m_clock.nsecsElapsed() / 1e6;
        }
        request->endAudio();
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_timeline.final >= 0; });
        return m_timeline;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    QElapsedTimer m_clock;
    Timeline m_timeline;
};

double percentile(std::vector<double> values, double share)
{
    if (values.empty())
        return -1;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, std::size_t(share * double(values.size())))];
}

double loadSeconds(const QString& model)
{
    LiveSpeechEngine engine(model);
    QElapsedTimer clock;
    clock.start();
    engine.preload();
    BenchClock::spinUntil([&] { return engine.isLoaded(); }, 5min);
    return clock.nsecsElapsed() / 1e9;
}

// The engine's worker and the main thread, while nothing is dictated.
qint64 wakeupsOverTenSeconds()
{
    return ProcessStats::idleCost(QCoreApplication::applicationPid()).wakeups;
}

}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0); // each figure as soon as it is known
    const QString quantization = argc > 1 ? QString::fromLatin1(argv[1]) : QStringLiteral("Q4_K_M");
    const int repetitions = argc > 2 ? std::atoi(argv[2]) : 10;
    const QString model = modelFor(quantization);
    std::printf("model %s: %.0f MB, %u CPU threads\n", qPrintable(QFileInfo(model).fileName()), QFileInfo(model).size() / 1e6,
        std::thread::hardware_concurrency());
    const qint64 pid = QCoreApplication::applicationPid();
    std::printf("resident before loading: %lld MB\n", ProcessStats::residentKb(pid) / 1024);

    evictFromCache(model);
    std::printf("load cold (file not cached): %.2f s\n", loadSeconds(model));
    std::printf("load warm: %.2f s\n", loadSeconds(model));

    const std::vector<qint16> pool = speechPool();
    LiveSpeechEngine engine(model, 5s);
    engine.preload();
    BenchClock::spinUntil([&] { return engine.isLoaded(); }, 5min);

    // The stream's own speed: a whole 30 s recording fed at once.
    const std::span<const qint16> thirty(pool.data(), std::size_t(30 * kRate));
    const Timeline atOnce = Dictation().run(engine, thirty, false);
    std::printf("stream real-time factor: 30 s decoded in %.2f s (%.3f)\n", atOnce.final / 1000, atOnce.final / 30000);
    std::printf("   text: %s\n", qPrintable(atOnce.text.left(100)));

    for (const int seconds : {5, 10, 30}) {
        std::vector<double> finals, firsts, cadence;
        QString sample;
        for (int i = 0; i < repetitions; ++i) {
            const std::size_t length = std::size_t(seconds * kRate);
            const std::size_t offset = (std::size_t(i) * 7 * kRate) % (pool.size() - length);
            const Timeline t = Dictation().run(engine, std::span<const qint16>(pool).subspan(offset, length), true);
            finals.push_back(t.final - t.released);
            if (!t.partials.empty())
                firsts.push_back(t.partials.front());
            for (std::size_t p = 1; p < t.partials.size(); ++p)
                cadence.push_back(t.partials[p] - t.partials[p - 1]);
            sample = t.text;
        }
        std::printf("%2d s dictations (%d): release -> final p50 %.0f ms, p95 %.0f ms; first partial p50 %.0f ms, p95 %.0f ms "
                    "after speech starts; partials every %.0f ms (p50)\n",
            seconds, repetitions, percentile(finals, 0.5), percentile(finals, 0.95), percentile(firsts, 0.5), percentile(firsts, 0.95),
            percentile(cadence, 0.5));
        std::printf("   last text: %s\n", qPrintable(sample.left(100)));
    }

    std::printf("resident with the model loaded: %lld MB\n", ProcessStats::residentKb(pid) / 1024);
    BenchClock::spinUntil([&] { return !engine.isLoaded(); }, 1min);
    std::printf("resident after the model's release: %lld MB\n", ProcessStats::residentKb(pid) / 1024);
    std::printf("wake-ups over 10 s, model released: %lld\n", wakeupsOverTenSeconds());
    return 0;
}
