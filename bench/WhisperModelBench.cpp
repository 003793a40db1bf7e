// whisper-cli with models of the sizes people dictate with (base, small): how long the model takes
// to load, its work on 10 s of speech with its defaults (beam search of 5, at most 4 threads: what
// dictations ran before) and as dictations run it now (greedy, one thread per core), the key
// release → text when whisper-cli starts after the release on the file and when it started at key
// down and reads the recording from standard input, what voice activity detection costs on 10 s of
// audio, what Voxaria adds on top of whisper-cli's own work, and the device it all ran on.
//
// The models are written once by make_whisper_model.py (the real layout, made-up weights whose
// decoder always writes the same short sentence), so load, encoding and decoding cost what they cost
// with the real ones. Needs the whisper-cli the build makes, and Python 3.
#include "BenchDictation.h"
#include "BenchHome.h"
#include "Engines/WhisperCliFeatures.h"
#include "Engines/WhisperDevice.h"
#include "Shared/AppPaths.h"
#include "Shared/ProcessorCores.h"
#include "Shared/WavWriter.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

namespace {

// Other work on this shared machine swings a run by seconds; the best of five shows the cost itself.
constexpr int kRuns = 5;
const QString kRealCli = QStringLiteral(VOXARIA_BUILT_WHISPER_CLI);
const QString kTestModels = QStringLiteral(VOXARIA_WHISPER_TEST_MODELS);

// "input closed → whisper-cli done" of the engine's timing spans: whisper-cli's own work once it
// has the whole recording, as the engine saw it; -1 when the spans do not say.
double whisperWorkMs(const QString& timing)
{
    static const QRegularExpression work(QStringLiteral("input closed → whisper-cli done (\\d+)"));
    const QRegularExpressionMatch match = work.match(timing);
    return match.hasMatch() ? match.captured(1).toDouble() : -1;
}

// Other work on the machine slows whisper-cli down most: the figures come with the load they met.
void printLoad()
{
    QFile loadAverage(QStringLiteral("/proc/loadavg"));
    loadAverage.open(QIODevice::ReadOnly);
    std::printf("load average (1, 5, 15 min): %s\n", loadAverage.readAll().split(' ').mid(0, 3).join(", ").constData());
    std::fflush(stdout);
}

QString cachedModel(const QString& size)
{
    const QString path = QStringLiteral(VOXARIA_BENCH_MODEL_CACHE "/ggml-%1.bin").arg(size);
    if (QFileInfo::exists(path))
        return path;
    QDir().mkpath(QFileInfo(path).path());
    std::printf("writing the %s model (once)...\n", qPrintable(size));
    std::fflush(stdout);
    QProcess::execute(QStringLiteral("python3"),
        {QStringLiteral(VOXARIA_BENCH_DIR "/make_whisper_model.py"), size, path, kTestModels + QStringLiteral("/for-tests-ggml-tiny.bin")});
    return path;
}

// A 16 kHz WAV of `samples`, as whisper-cli is handed a recording.
QString writeWav(const QString& path, const QByteArray& samples)
{
    WavWriter wav(path, WhisperTranscriber::kSampleRate, 1);
    wav.open();
    wav.append(reinterpret_cast<const qint16*>(samples.constData()), size_t(samples.size() / 2));
    wav.close();
    return path;
}

// What whisper-cli prints of its own time, in milliseconds.
struct CliTimes {
    double load = -1;
    double total = -1; // from the start of the load to the end of the transcription
    double vad = -1;
    QString device;
};

CliTimes runCli(const QStringList& arguments)
{
    QProcess cli;
    cli.setProcessChannelMode(QProcess::MergedChannels);
    cli.start(kRealCli, arguments);
    cli.waitForFinished(-1);
    const QString output = QString::fromUtf8(cli.readAll());
    const auto figure = [&output](const char* name) {
        const QRegularExpressionMatch match
            = QRegularExpression(QStringLiteral("%1 time = +([0-9.]+) ms").arg(QLatin1String(name))).match(output);
        return match.hasMatch() ? match.captured(1).toDouble() : -1;
    };
    return {figure("load"), figure("total"), figure("vad"), WhisperDevice::fromLog(output.toUtf8())};
}

// The whisper-cli Voxaria finds beside its executable: the real one, which reads standard input, or
// a copy whose help lists no voice activity detection, taken for an older one and so run on the file
// after the release. Its option names change with it, none of which a dictation uses. It loads its
// libraries and ggml's backend modules from its own folder: they are linked in beside it.
void installCli(bool readsStdin)
{
    const QDir here(QCoreApplication::applicationDirPath());
    for (const QFileInfo& library : QDir(QFileInfo(kRealCli).path()).entryInfoList({QStringLiteral("lib*.so*")}, QDir::Files))
        QFile::link(library.filePath(), here.filePath(library.fileName()));
    const QString target = here.filePath(QStringLiteral("whisper-cli"));
    QFile::remove(target);
    QFile real(kRealCli);
    real.open(QIODevice::ReadOnly);
    QByteArray program = real.readAll();
    if (!readsStdin)
        program.replace("--vad", "--VAD");
    QFile copy(target);
    copy.open(QIODevice::WriteOnly);
    copy.write(program);
    copy.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

struct PathFigures {
    std::vector<double> releaseToText;
    std::vector<double> overhead; // release → text minus whisper-cli's work after its input closed
};

// The two ways alternate, so a change in the machine's load between runs hits both alike: [0] started
// after the release on the file, [1] started at key down on standard input.
std::array<PathFigures, 2> dictations(const QByteArray& speech, int holdMs)
{
    std::array<PathFigures, 2> figures;
    for (int run = 0; run < kRuns; ++run) {
        for (const bool readsStdin : {false, true}) {
            installCli(readsStdin);
            const BenchDictation::Result dictation
                = BenchDictation::dictate(speech, holdMs, {QStringLiteral("pt-BR"), QStringLiteral("model.bin")});
            const double workMs = whisperWorkMs(dictation.timing);
            if (!dictation.answered || workMs < 0)
                continue;
            figures[readsStdin].releaseToText.push_back(dictation.releaseToTextMs());
            figures[readsStdin].overhead.push_back(dictation.releaseToTextMs() - workMs);
        }
    }
    return figures;
}

void measure(const QString& size, const QByteArray& speech, const QString& wav)
{
    const QString model = cachedModel(size);
    QFile::remove(AppPaths::modelsFolder() + QStringLiteral("/model.bin"));
    QFile::link(model, AppPaths::modelsFolder() + QStringLiteral("/model.bin"));
    const QStringList direct{QStringLiteral("-m"), model, QStringLiteral("-f"), wav, QStringLiteral("-l"), QStringLiteral("pt"),
        QStringLiteral("-nf"), QStringLiteral("--no-timestamps"), QStringLiteral("-otxt"), QStringLiteral("-of"), wav};
    const QStringList greedy{QStringLiteral("-t"), QString::number(ProcessorCores::physical()), QStringLiteral("-bs"), QStringLiteral("1")};
    std::vector<double> load, beamWork, work, total, withVad, vad;
    QString device;
    // Beam and greedy alternate, so a change in the machine's load between runs hits both alike.
    for (int run = 0; run < kRuns; ++run) {
        const CliTimes beam = runCli(direct);
        const CliTimes plain = runCli(direct + greedy);
        const CliTimes detected = runCli(direct + greedy + WhisperCliFeatures::vadArguments(kRealCli));
        load.push_back(plain.load);
        beamWork.push_back(beam.total - beam.load);
        work.push_back(plain.total - plain.load);
        total.push_back(plain.total);
        withVad.push_back(detected.total);
        vad.push_back(detected.vad);
        device = plain.device;
    }
    // Held long enough for the model to be loaded at the release, as when the user speaks a while.
    const int holdMs = int(3 * BenchClock::median(load)) + 2000;
    const auto [onFile, onStdin] = dictations(speech, holdMs);

    const auto best
        = [](const std::vector<double>& values) { return values.empty() ? -1 : *std::min_element(values.begin(), values.end()); };
    std::printf("%s: whisper-cli ran on %s%s\n", qPrintable(size),
        qPrintable(device.isEmpty() ? QStringLiteral("an unnamed device") : device),
        device.startsWith(QLatin1String("CPU")) ? " (no Vulkan GPU here: no GPU figures)" : "");
    std::printf("%s: model load %.0f ms; whisper-cli's work on 10 s once loaded, median (best): defaults, beam search of 5 on at most "
                "4 threads %.0f (%.0f) ms; greedy on %d threads %.0f (%.0f) ms\n",
        qPrintable(size), BenchClock::median(load), BenchClock::median(beamWork), best(beamWork), ProcessorCores::physical(),
        BenchClock::median(work), best(work));
    std::printf("%s: key release -> text, median (best): started after the release (-f file) %.0f (%.0f) ms, started at key down "
                "(-f -) %.0f (%.0f) ms; load time hidden %.0f (%.0f) ms\n",
        qPrintable(size), BenchClock::median(onFile.releaseToText), best(onFile.releaseToText), BenchClock::median(onStdin.releaseToText),
        best(onStdin.releaseToText), BenchClock::median(onFile.releaseToText) - BenchClock::median(onStdin.releaseToText),
        best(onFile.releaseToText) - best(onStdin.releaseToText));
    std::printf("%s: release -> text minus whisper-cli's run after its input closed: median %.1f ms (target <= 20 ms); "
                "minus its whole run when started after the release %.1f ms\n",
        qPrintable(size), BenchClock::median(onStdin.overhead), BenchClock::median(onFile.overhead));
    std::printf("%s: voice activity detection on 10 s: whisper-cli total %.0f ms with, %.0f ms without (%+.0f ms); "
                "Silero's own vad time %.0f ms\n",
        qPrintable(size), BenchClock::median(withVad), BenchClock::median(total), BenchClock::median(withVad) - BenchClock::median(total),
        BenchClock::median(vad));
}

}

int main(int argc, char** argv)
{
    BenchHome home;
    QCoreApplication app(argc, argv);
    if (!QFileInfo(kRealCli).isExecutable()) {
        std::printf("skipped: no whisper-cli built at %s\n", qPrintable(kRealCli));
        return 0;
    }
    QDir().mkpath(AppPaths::modelsFolder());
    // Voxaria's own voice activity options, with the real Silero model in its place.
    QFile::link(kTestModels + QStringLiteral("/for-tests-silero-v6.2.0-ggml.bin"), WhisperCliFeatures::vadModelPath());

    const QByteArray speech = BenchDictation::speechSamples(QStringLiteral(VOXARIA_TESTDATA_DIR "/speech/jfk.wav"), 10);
    const QString wav = writeWav(home.path() + QStringLiteral("/speech.wav"), speech);
    for (const char* size : {"base", "small"}) {
        measure(QString::fromLatin1(size), speech, wav);
        printLoad();
    }
    const QDir here(QCoreApplication::applicationDirPath());
    for (const QString& copy : here.entryList({QStringLiteral("whisper-cli"), QStringLiteral("lib*.so*")}, QDir::Files | QDir::System))
        QFile::remove(here.filePath(copy));
    return 0;
}
