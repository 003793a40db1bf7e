#include "Shared/AppPaths.h"
#include "Platform/Fakes/FakeAudioInput.h"
#include "Platform/Linux/PulseAudioInput.h"
#include "App/Settings.h"
#include "TestSupport.h"
#include "Engines/WhisperError.h"
#include "Engines/WhisperTranscriber.h"

#include <QCoreApplication>
#include <QDir>
#include <QRegularExpression>
#include <QSettings>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QThread>
#include <QtEndian>

#include <gtest/gtest.h>

#include <cmath>

using namespace std::chrono_literals;
using TestSupport::FakeWhisper;
using TestSupport::waitUntil;

namespace {

struct WavInfo {
    bool valid = false;
    int format = 0, channels = 0, sampleRate = 0, bitsPerSample = 0;
    qint64 dataBytes = 0;
    double seconds() const { return double(dataBytes) / (sampleRate * channels * bitsPerSample / 8); }
};

WavInfo readWav(const QString& path)
{
    QFile file(path);
    WavInfo info;
    if (!file.open(QIODevice::ReadOnly))
        return info;
    const QByteArray header = file.read(44);
    if (header.size() < 44 || !header.startsWith("RIFF") || header.mid(8, 8) != "WAVEfmt " || header.mid(36, 4) != "data")
        return info;
    const auto u16 = [&](int offset) { return qFromLittleEndian<quint16>(header.constData() + offset); };
    const auto u32 = [&](int offset) { return qFromLittleEndian<quint32>(header.constData() + offset); };
    info.format = u16(20);
    info.channels = u16(22);
    info.sampleRate = int(u32(24));
    info.bitsPerSample = u16(34);
    info.dataBytes = u32(40);
    info.valid = u32(4) == 36 + info.dataBytes && file.size() == 44 + info.dataBytes;
    return info;
}

QStringList dictationFiles()
{
    return QDir(AppPaths::temporaryFolder()).entryList({QStringLiteral("voxaria-*")}, QDir::Files);
}

// What one dictation answered, as the controller would see it.
struct Outcome {
    int finals = 0;
    int errors = 0;
    QString text;
    QString errorMessage;
    std::shared_ptr<const Error> error;
    bool answeredOnMainThread = true;

    TranscriptionEngine::FinalCallback onFinal()
    {
        return [this](const QString& value) {
            ++finals;
            text = value;
            answeredOnMainThread &= QThread::currentThread() == qApp->thread();
        };
    }
    TranscriptionEngine::ErrorCallback onError()
    {
        return [this](const Error& value) {
            ++errors;
            errorMessage = value.description();
            error = value.clone();
            answeredOnMainThread &= QThread::currentThread() == qApp->thread();
        };
    }
    bool answered() const { return finals + errors > 0; }
};

// One second of a 440 Hz tone as 48 kHz stereo float, the shape a desktop microphone delivers.
QByteArray toneBuffer(int frames)
{
    QByteArray data(frames * 2 * int(sizeof(float)), Qt::Uninitialized);
    auto* samples = reinterpret_cast<float*>(data.data());
    for (int i = 0; i < frames; ++i)
        samples[2 * i] = samples[2 * i + 1] = 0.3f * std::sin(2 * M_PI * 440 * i / 48000.0);
    return data;
}

class WhisperTranscriberTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        QDir(AppPaths::modelsFolder()).removeRecursively();
        installModel(QStringLiteral("ggml-large-v3-turbo-q5_0.bin"));
        QSettings(QSettings::NativeFormat, QSettings::UserScope, Settings::applicationId()).clear();
        for (const QString& leftover : dictationFiles())
            QFile::remove(AppPaths::temporaryFolder() + QLatin1Char('/') + leftover);
    }

    static void installModel(const QString& name)
    {
        QDir().mkpath(AppPaths::modelsFolder());
        QFile model(AppPaths::modelsFolder() + QLatin1Char('/') + name);
        model.open(QIODevice::WriteOnly);
        model.write("ggml");
    }

    // An engine on a fake microphone delivering 48 kHz stereo float.
    std::unique_ptr<WhisperTranscriber> makeEngine()
    {
        auto input = std::make_unique<FakeAudioInput>();
        input->deviceFormat = AudioFormat{48000, 2, AudioFormat::SampleType::float32};
        microphone = input.get();
        return std::make_unique<WhisperTranscriber>(std::move(input));
    }

    // Records `seconds` of tone, releases the key and waits for the answer.
    void dictate(WhisperTranscriber& engine, Outcome& outcome, double seconds = 1.0)
    {
        engine.start({}, outcome.onFinal(), outcome.onError());
        const QByteArray buffer = toneBuffer(4096);
        for (int i = 0; i < int(seconds * 48000 / 4096); ++i)
            microphone->deliver(buffer);
        engine.finish();
        EXPECT_FALSE(outcome.answered()) << "the answer must come later, on the event loop";
        ASSERT_TRUE(waitUntil([&] { return outcome.answered(); }, 20s));
    }

    FakeWhisper whisper;
    FakeAudioInput* microphone = nullptr;
};

TEST_F(WhisperTranscriberTest, FindsTheFirstExecutableCandidateBesideTheAppFirst)
{
    EXPECT_EQ(WhisperTranscriber::binaryCandidates().first(), whisper.binaryPath());
    EXPECT_EQ(WhisperTranscriber::binaryURL(), whisper.binaryPath());

    const QString folder = TestSupport::isolatedRoot() + QStringLiteral("/candidates");
    QDir().mkpath(folder + QStringLiteral("/directory"));
    const auto makeFile = [&](const QString& name, bool executable) {
        QFile file(folder + QLatin1Char('/') + name);
        file.open(QIODevice::WriteOnly);
        file.setPermissions(executable ? QFile::ReadOwner | QFile::ExeOwner : QFile::ReadOwner);
        return file.fileName();
    };
    const QString plain = makeFile(QStringLiteral("not-executable"), false);
    const QString first = makeFile(QStringLiteral("first"), true);
    const QString second = makeFile(QStringLiteral("second"), true);
    EXPECT_EQ(WhisperTranscriber::firstExecutable({folder + "/missing", plain, folder + "/directory", first, second}), first);
    EXPECT_EQ(WhisperTranscriber::firstExecutable({plain}), std::nullopt);
}

TEST_F(WhisperTranscriberTest, ModelIsTheSelectedFileElseTheFirstLargeElseTheFirstBin)
{
    EXPECT_EQ(WhisperTranscriber::modelURL(), AppPaths::modelsFolder() + "/ggml-large-v3-turbo-q5_0.bin");

    Settings::shared().setWhisperModelFileName("ggml-medium.bin");
    installModel("ggml-base-q5_1.bin");
    EXPECT_EQ(WhisperTranscriber::modelURL(), AppPaths::modelsFolder() + "/ggml-large-v3-turbo-q5_0.bin");

    QFile::remove(AppPaths::modelsFolder() + "/ggml-large-v3-turbo-q5_0.bin");
    QFile::remove(AppPaths::modelsFolder() + "/ggml-base-q5_1.bin");
    installModel("ggml-small-q5_1.bin");
    installModel("LEIA-ME.txt");
    installModel("ggml-LARGE.bin.part");
    EXPECT_EQ(WhisperTranscriber::modelURL(), AppPaths::modelsFolder() + "/ggml-small-q5_1.bin");
    EXPECT_TRUE(WhisperTranscriber::isAvailable());

    QFile::remove(AppPaths::modelsFolder() + "/ggml-small-q5_1.bin");
    EXPECT_EQ(WhisperTranscriber::modelURL(), std::nullopt);
    EXPECT_FALSE(WhisperTranscriber::isAvailable());

    QDir(AppPaths::modelsFolder()).removeRecursively();
    EXPECT_EQ(WhisperTranscriber::modelURL(), std::nullopt);
}

// What start() threw, or "started"; a refused start must leave the microphone closed.
QString startFailure(WhisperTranscriber& engine, const FakeAudioInput& microphone)
{
    try {
        engine.start({}, [](const QString&) {}, [](const Error&) {});
    } catch (const Error& error) {
        EXPECT_FALSE(microphone.isRunning());
        return error.description();
    }
    return QStringLiteral("started");
}

TEST_F(WhisperTranscriberTest, StartFailsAtOnceWithTheMessageOfWhatIsMissing)
{
    QDir(AppPaths::modelsFolder()).removeRecursively();
    QFile::remove(whisper.binaryPath());
    // The program is looked for before the model.
    auto withoutProgram = makeEngine();
    EXPECT_EQ(startFailure(*withoutProgram, *microphone), "whisper-cli não encontrado. Instale com: sudo apt install whisper.cpp");
    FakeWhisper reinstalled;
    auto withoutModel = makeEngine();
    EXPECT_EQ(startFailure(*withoutModel, *microphone), "Modelo Whisper não encontrado em ~/.local/share/Voxaria/models/");
    installModel("ggml-small-q5_1.bin");

    const QString unsupported = "Falha na transcrição Whisper: formato de áudio não suportado";
    for (std::optional<AudioFormat> format : {std::optional<AudioFormat>(),
                                              std::optional(AudioFormat{0, 2, AudioFormat::SampleType::float32}),
                                              std::optional(AudioFormat{48000, 0, AudioFormat::SampleType::float32})}) {
        auto engine = makeEngine();
        microphone->deviceFormat = format;
        EXPECT_EQ(startFailure(*engine, *microphone), unsupported);
        EXPECT_EQ(microphone->startCount, 0);
    }
    auto input = std::make_unique<FakeAudioInput>();
    FakeAudioInput& fake = *input;
    WhisperTranscriber noConverter(std::move(input), [](const AudioFormat&, int) { return nullptr; });
    EXPECT_EQ(startFailure(noConverter, fake), unsupported);

    auto busy = makeEngine();
    microphone->startFailure = "O dispositivo de áudio está ocupado";
    EXPECT_EQ(startFailure(*busy, *microphone), "O dispositivo de áudio está ocupado");

    // A temporary "folder" that is a plain file cannot be written into, even by root.
    const QByteArray savedTmp = qgetenv("TMPDIR");
    const QString notAFolder = TestSupport::isolatedRoot() + "/not-a-folder";
    QFile(notAFolder).open(QIODevice::WriteOnly);
    qputenv("TMPDIR", notAFolder.toUtf8());
    auto cannotWrite = makeEngine();
    const QString unwritable = startFailure(*cannotWrite, *microphone);
    qputenv("TMPDIR", savedTmp);
    EXPECT_TRUE(unwritable.startsWith("Não foi possível criar a gravação")) << unwritable.toStdString();

    EXPECT_TRUE(dictationFiles().isEmpty()) << "a failed start removes its empty recording";
}

TEST_F(WhisperTranscriberTest, DictationRunsWhisperWithTheElevenArgumentsAndAnswersTrimmedText)
{
    Settings::shared().setLocaleIdentifier("es-ES");
    whisper.script("text=  Hola, ¿qué tal?\\nSegunda línea \\n\\n");
    auto engine = makeEngine();
    Outcome outcome;
    dictate(*engine, outcome);

    EXPECT_EQ(outcome.finals, 1);
    EXPECT_EQ(outcome.errors, 0);
    EXPECT_EQ(outcome.text, "Hola, ¿qué tal?\nSegunda línea");
    EXPECT_TRUE(outcome.answeredOnMainThread);

    const QStringList args = whisper.lastArguments();
    ASSERT_EQ(args.size(), 11);
    const QString wav = args[3];
    const QString base = wav.chopped(4);
    EXPECT_EQ(args, QStringList({"-m", AppPaths::modelsFolder() + "/ggml-large-v3-turbo-q5_0.bin", "-f", wav, "-l", "es",
                                 "--no-timestamps", "--no-prints", "-otxt", "-of", base}));
    EXPECT_TRUE(QFileInfo(wav).fileName().contains(QRegularExpression("^voxaria-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}\\.wav$")))
        << wav.toStdString();

    const WavInfo recorded = readWav(whisper.lastInputCopy());
    EXPECT_TRUE(recorded.valid);
    EXPECT_EQ(recorded.format, 1);
    EXPECT_EQ(recorded.channels, 1);
    EXPECT_EQ(recorded.sampleRate, 16000);
    EXPECT_EQ(recorded.bitsPerSample, 16);
    EXPECT_NEAR(recorded.seconds(), 11 * 4096 / 48000.0, 0.01);
    EXPECT_TRUE(dictationFiles().isEmpty());
}

TEST_F(WhisperTranscriberTest, FailuresReportTheLastErrorLineOrTheExitStatus)
{
    struct Case {
        QString script;
        QString message;
    };
    const QList<Case> cases = {
        {"exit=3\nquiet=1\nstderr=primeira linha\nstderr=segunda linha\nstderr=\\n", "Falha na transcrição Whisper: segunda linha"},
        {"notxt=1\nquiet=1", "Falha na transcrição Whisper: código 0"},
        {"exit=1\nquiet=1\nnotxt=1", "Falha na transcrição Whisper: código 1"},
        {"exit=1\nquiet=1\nstderr_hex=ff", "Falha na transcrição Whisper: código 1"},
        // A transcript that is not UTF-8 is not passed off as text.
        {"text_hex=4f6cff61\nquiet=1\nstderr=aviso: saída truncada", "Falha na transcrição Whisper: aviso: saída truncada"},
    };
    for (const Case& c : cases) {
        whisper.script(c.script);
        auto engine = makeEngine();
        Outcome outcome;
        dictate(*engine, outcome, 1.0);
        EXPECT_EQ(outcome.finals, 0) << c.script.toStdString();
        EXPECT_EQ(outcome.errorMessage, c.message) << c.script.toStdString();
        EXPECT_TRUE(dynamic_cast<const WhisperError*>(outcome.error.get()));
        EXPECT_TRUE(dictationFiles().isEmpty()) << c.script.toStdString();
    }
}

TEST_F(WhisperTranscriberTest, ACrashingOrFloodingWhisperNeitherHangsNorLosesTheAnswer)
{
    whisper.script("crash=1\nstderr=whisper_init: falha ao carregar o modelo");
    auto crashing = makeEngine();
    Outcome crashed;
    dictate(*crashing, crashed);
    EXPECT_EQ(crashed.errors, 1);
    EXPECT_TRUE(crashed.errorMessage.startsWith("Falha na transcrição Whisper: ")) << crashed.errorMessage.toStdString();

    whisper.script("flood_stdout=32\ntext=ainda chega");
    auto flooding = makeEngine();
    Outcome flooded;
    dictate(*flooding, flooded);
    EXPECT_EQ(flooded.text, "ainda chega");
    EXPECT_TRUE(dictationFiles().isEmpty());
}

TEST_F(WhisperTranscriberTest, ProgramGoneOrUnlaunchableAtReleaseIsReportedThroughOnError)
{
    auto vanished = makeEngine();
    Outcome notInstalled;
    vanished->start({}, notInstalled.onFinal(), notInstalled.onError());
    QFile::remove(whisper.binaryPath());
    vanished->finish();
    ASSERT_TRUE(waitUntil([&] { return notInstalled.answered(); }));
    EXPECT_EQ(notInstalled.errorMessage, "whisper-cli não encontrado. Instale com: sudo apt install whisper.cpp");

    QFile broken(whisper.binaryPath());
    broken.open(QIODevice::WriteOnly | QIODevice::Truncate);
    broken.write("#!/nonexistent/interpreter\n");
    broken.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    broken.close();
    auto engine = makeEngine();
    Outcome unlaunchable;
    dictate(*engine, unlaunchable);
    EXPECT_EQ(unlaunchable.errors, 1);
    EXPECT_TRUE(dynamic_cast<const PlatformError*>(unlaunchable.error.get()));
    EXPECT_FALSE(unlaunchable.errorMessage.isEmpty());
    EXPECT_TRUE(dictationFiles().isEmpty());
}

TEST_F(WhisperTranscriberTest, CancelAtAnyStageLeavesNoFileAndNoAnswer)
{
    whisper.script("sleep=3\ntext=tarde demais");
    const auto scenario = [&](const char* name, const std::function<void(WhisperTranscriber&)>& drive,
                              bool destroyEngine) {
        SCOPED_TRACE(name);
        auto engine = makeEngine();
        Outcome outcome;
        engine->start({}, outcome.onFinal(), outcome.onError());
        microphone->deliver(toneBuffer(4096));
        drive(*engine);
        if (destroyEngine)
            engine.reset();
        TestSupport::spin(300ms);
        if (!destroyEngine)
            EXPECT_FALSE(microphone->isRunning());
        EXPECT_TRUE(waitUntil([] { return dictationFiles().isEmpty(); }, 5s)) << dictationFiles().join(' ').toStdString();
        EXPECT_FALSE(outcome.answered());
    };
    scenario("while recording", [](WhisperTranscriber& e) { e.cancel(); }, false);
    scenario("right after finish", [](WhisperTranscriber& e) { e.finish(); e.cancel(); }, false);
    scenario("while whisper-cli runs", [](WhisperTranscriber& e) {
        e.finish();
        TestSupport::spin(500ms);
        e.cancel();
    }, false);
    scenario("engine dropped while whisper-cli runs", [](WhisperTranscriber& e) {
        e.finish();
        TestSupport::spin(500ms);
    }, true);
    // The sleeping fake was terminated, not waited for.
    EXPECT_TRUE(waitUntil([&] {
        QProcess check;
        check.start("pgrep", {"-f", whisper.binaryPath()});
        check.waitForFinished();
        return check.exitCode() == 1;
    }, 5s));
}

TEST_F(WhisperTranscriberTest, RecordsTheVirtualMicrophoneAtSixteenKilohertzForAsLongAsPlayed)
{
    if (!TestSupport::hasPulseAudio())
        GTEST_SKIP() << "needs the PulseAudio harness (scripts/with-harness.sh)";
    const QString speech = TestSupport::testDataPath("speech/fleurs-pt-002.ogg");
    const double played = TestSupport::audioDuration(speech);
    ASSERT_GT(played, 5.0);

    WhisperTranscriber engine(std::make_unique<PulseAudioInput>());
    Outcome outcome;
    engine.start({}, outcome.onFinal(), outcome.onError());
    ASSERT_TRUE(TestSupport::playIntoMicrophone(speech));
    engine.finish();
    ASSERT_TRUE(waitUntil([&] { return outcome.answered(); }, 20s));
    EXPECT_EQ(outcome.text, "texto de teste");

    const WavInfo recorded = readWav(whisper.lastInputCopy());
    EXPECT_TRUE(recorded.valid);
    EXPECT_EQ(recorded.sampleRate, 16000);
    EXPECT_EQ(recorded.channels, 1);
    EXPECT_EQ(recorded.bitsPerSample, 16);
    EXPECT_NEAR(recorded.seconds(), played, 0.15);
}

TEST_F(WhisperTranscriberTest, WithoutAnAudioServerStartFailsAtOnce)
{
    // A separate process, so the audio system is looked up from scratch with no server to find.
    const QString probe = QStringLiteral(VOXARIA_HELPER_whisper_start_probe);
    const QString beside = QFileInfo(probe).absolutePath() + "/whisper-cli";
    QFile::remove(beside);
    ASSERT_TRUE(QFile::copy(whisper.binaryPath(), beside));
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("PULSE_SERVER", "unix:/nonexistent/pulse/native");
    process.setProcessEnvironment(env);
    QElapsedTimer clock;
    clock.start();
    process.start(probe);
    ASSERT_TRUE(process.waitForFinished(10000)) << "start() hung without an audio server";
    QFile::remove(beside);
    EXPECT_EQ(QString::fromUtf8(process.readAllStandardOutput()).trimmed(),
              "Falha na transcrição Whisper: formato de áudio não suportado");
    EXPECT_LT(clock.elapsed(), 3000);
}

}
