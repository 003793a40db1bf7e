#include "App/Settings.h"
#include "Engines/WhisperTranscriber.h"
#include "Platform/Fakes/FakeAudioInput.h"
#include "Platform/Linux/PulseAudioInput.h"
#include "Shared/AppPaths.h"
#include "TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QSettings>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using namespace TestSupport;

namespace {

QString modelPath(const QString& name)
{
    return AppPaths::modelsFolder() + QLatin1Char('/') + name;
}

void installModel(const QString& name)
{
    writeFile(modelPath(name), "ggml");
}

const QString kDisconnected = QStringLiteral("O microfone foi desconectado durante o ditado.");

class WhisperTranscriberTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        QDir(AppPaths::modelsFolder()).removeRecursively();
        installModel(QStringLiteral("ggml-large-v3-turbo-q5_0.bin"));
        QSettings(QSettings::NativeFormat, QSettings::UserScope, Settings::applicationId()).clear();
        for (const QString& leftover : dictationFiles())
            QFile::remove(leftover);
    }

    // An engine on a fake microphone delivering 48 kHz stereo float, as desktop microphones do.
    std::unique_ptr<WhisperTranscriber> makeEngine()
    {
        auto input = std::make_unique<FakeAudioInput>();
        input->deviceFormat = AudioFormat{48000, 2, AudioFormat::SampleType::float32};
        microphone = input.get();
        return std::make_unique<WhisperTranscriber>(std::move(input));
    }

    // A dictation that has recorded eleven buffers of 4096 frames.
    std::unique_ptr<WhisperTranscriber> record()
    {
        auto engine = makeEngine();
        answers = {};
        answers.start(*engine);
        for (int i = 0; i < 11; ++i)
            microphone->deliver(toneFrames(4096, i * 4096));
        return engine;
    }

    // The same, released, and its answer, which must come later on the event loop.
    void dictate()
    {
        auto engine = record();
        engine->finish();
        EXPECT_FALSE(answers.answered()) << "answered from inside finish()";
        ASSERT_TRUE(waitUntil([&] { return answers.answered(); }, 20s));
    }

    FakeWhisper whisper;
    FakeAudioInput* microphone = nullptr;
    EngineAnswers answers;
};

TEST_F(WhisperTranscriberTest, TheProgramIsTheFirstExecutableCandidateBesideTheAppFirst)
{
    EXPECT_EQ(WhisperTranscriber::binaryCandidates().first(), whisper.binaryPath());
    EXPECT_EQ(WhisperTranscriber::binaryURL(), whisper.binaryPath());

    const QString folder = isolatedRoot() + QStringLiteral("/candidates/");
    QDir().mkpath(folder + QStringLiteral("directory"));
    writeFile(folder + QStringLiteral("plain"), {});
    writeFile(folder + QStringLiteral("first"), {}, true);
    writeFile(folder + QStringLiteral("second"), {}, true);
    QStringList candidates;
    for (const char* name : {"missing", "plain", "directory", "first", "second"})
        candidates << folder + QLatin1String(name);
    EXPECT_EQ(WhisperTranscriber::firstExecutable(candidates), folder + QStringLiteral("first"));
    EXPECT_EQ(WhisperTranscriber::firstExecutable({folder + QStringLiteral("plain")}), std::nullopt);
}

TEST_F(WhisperTranscriberTest, ModelIsTheSelectedFileElseTheFirstLargeElseTheFirstBin)
{
    EXPECT_EQ(WhisperTranscriber::modelURL(), modelPath("ggml-large-v3-turbo-q5_0.bin"));

    Settings::shared().setWhisperModelFileName("ggml-medium.bin");
    installModel("ggml-base-q5_1.bin");
    EXPECT_EQ(WhisperTranscriber::modelURL(), modelPath("ggml-large-v3-turbo-q5_0.bin"));

    QFile::remove(modelPath("ggml-large-v3-turbo-q5_0.bin"));
    QFile::remove(modelPath("ggml-base-q5_1.bin"));
    installModel("ggml-small-q5_1.bin");
    installModel("LEIA-ME.txt");
    installModel("ggml-LARGE.bin.part");
    EXPECT_EQ(WhisperTranscriber::modelURL(), modelPath("ggml-small-q5_1.bin"));
    EXPECT_TRUE(WhisperTranscriber::isAvailable());

    QFile::remove(modelPath("ggml-small-q5_1.bin"));
    EXPECT_EQ(WhisperTranscriber::modelURL(), std::nullopt);
    EXPECT_FALSE(WhisperTranscriber::isAvailable());

    QDir(AppPaths::modelsFolder()).removeRecursively();
    EXPECT_EQ(WhisperTranscriber::modelURL(), std::nullopt);
}

TEST_F(WhisperTranscriberTest, AStoredModelNameFindsNothingOutsideTheModelsFolder)
{
    QFile::remove(modelPath("ggml-large-v3-turbo-q5_0.bin"));
    writeFile(AppPaths::dataFolder() + "/ggml-outside.bin", "ggml");
    for (const QString name : {"/etc/passwd", "../ggml-outside.bin", "../models/../ggml-outside.bin",
                               ":/sounds/Tink.wav", "", ".."}) {
        Settings::shared().setWhisperModelFileName(name);
        EXPECT_EQ(WhisperTranscriber::modelURL(), std::nullopt) << name.toStdString();
    }
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
    const QString notAFolder = isolatedRoot() + "/not-a-folder";
    writeFile(notAFolder, {});
    qputenv("TMPDIR", notAFolder.toUtf8());
    auto cannotWrite = makeEngine();
    const QString unwritable = startFailure(*cannotWrite, *microphone);
    qputenv("TMPDIR", savedTmp);
    EXPECT_TRUE(unwritable.startsWith("Não foi possível criar a gravação")) << unwritable.toStdString();

    EXPECT_TRUE(dictationFiles().isEmpty()) << "a failed start removes its empty recording";
}

TEST_F(WhisperTranscriberTest, WhisperRunsWithTheElevenArgumentsOnA16kHzMonoRecording)
{
    // No language at all lets whisper-cli recognise whichever is spoken; it refuses an empty one.
    for (const auto& [locale, language] : {std::pair<QString, QString>("es-ES", "es"), {"", "auto"}}) {
        SCOPED_TRACE(locale.toStdString());
        Settings::shared().setLocaleIdentifier(locale);
        dictate();
        EXPECT_EQ(answers.finals, QStringList({"texto de teste"})) << answers.errors.join(' ').toStdString();

        const QStringList args = whisper.lastArguments();
        ASSERT_EQ(args.size(), 11);
        const QString wav = args[3];
        EXPECT_EQ(args, QStringList({"-m", modelPath("ggml-large-v3-turbo-q5_0.bin"), "-f", wav, "-l", language,
                                     "--no-timestamps", "--no-prints", "-otxt", "-of", wav.chopped(4)}));
        EXPECT_TRUE(QFileInfo(wav).fileName().contains(QRegularExpression(
            "^voxaria-[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}\\.wav$"))) << wav.toStdString();

        const WavInfo recorded = readWav(whisper.lastInputCopy());
        EXPECT_TRUE(recorded.valid);
        EXPECT_EQ(QList<int>({recorded.format, recorded.channels, recorded.sampleRate, recorded.bitsPerSample}),
                  QList<int>({1, 1, 16000, 16}));
        EXPECT_NEAR(recorded.seconds(), 11 * 4096 / 48000.0, 0.01);
        EXPECT_TRUE(dictationFiles().isEmpty());
    }
}

// The transcript, trimmed; or the last line of the error output, else the exit status.
TEST_F(WhisperTranscriberTest, WhatWhisperCliLeavesBecomesTheTextOrTheError)
{
    const QString failed = QStringLiteral("Falha na transcrição Whisper: ");
    const struct {
        QString script;
        QStringList finals;
        QStringList errors;
    } cases[] = {
        {"text=  Hola, ¿qué tal?\\nSegunda línea \\n\\n", {"Hola, ¿qué tal?\nSegunda línea"}, {}},
        {"text=\n", {""}, {}},
        {"flood_stdout=32\ntext=ainda chega", {"ainda chega"}, {}},
        {"exit=3\nquiet=1\nstderr=primeira linha\nstderr=segunda linha\nstderr=\\n", {}, {failed + "segunda linha"}},
        {"notxt=1\nquiet=1", {}, {failed + "código 0"}},
        {"exit=1\nquiet=1\nnotxt=1", {}, {failed + "código 1"}},
        {"exit=1\nquiet=1\nstderr_hex=ff", {}, {failed + "código 1"}},
        // A transcript that is not UTF-8 is not passed off as text.
        {"text_hex=4f6cff61\nquiet=1\nstderr=aviso: saída truncada", {}, {failed + "aviso: saída truncada"}},
        {"crash=1\nquiet=1", {}, {failed + "código 11"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.script.toStdString());
        whisper.script(c.script);
        dictate();
        EXPECT_EQ(answers.finals, c.finals);
        EXPECT_EQ(answers.errors, c.errors);
        EXPECT_TRUE(answers.onMainThread);
        EXPECT_TRUE(dictationFiles().isEmpty());
    }
}

TEST_F(WhisperTranscriberTest, ProgramGoneOrUnlaunchableAtReleaseIsReportedThroughOnError)
{
    auto vanished = record();
    QFile::remove(whisper.binaryPath());
    vanished->finish();
    ASSERT_TRUE(waitUntil([&] { return answers.answered(); }));
    EXPECT_EQ(answers.errors, QStringList({"whisper-cli não encontrado. Instale com: sudo apt install whisper.cpp"}));

    writeFile(whisper.binaryPath(), "#!/nonexistent/interpreter\n", true);
    dictate();
    EXPECT_TRUE(answers.finals.isEmpty());
    ASSERT_EQ(answers.errors.size(), 1);
    EXPECT_FALSE(answers.errors.first().isEmpty());
    EXPECT_TRUE(dictationFiles().isEmpty());
}

TEST_F(WhisperTranscriberTest, CancelAtAnyStageLeavesNoFileNoChildAndNoAnswer)
{
    whisper.script("sleep=3\ntext=tarde demais");
    const std::pair<const char*, std::function<void(std::unique_ptr<WhisperTranscriber>&)>> scenarios[] = {
        {"while recording", [](auto& engine) { engine->cancel(); }},
        {"right after finish", [](auto& engine) { engine->finish(); engine->cancel(); }},
        {"while whisper-cli runs", [](auto& engine) { engine->finish(); spin(500ms); engine->cancel(); }},
        {"engine dropped while whisper-cli runs", [](auto& engine) { engine->finish(); spin(500ms); engine.reset(); }},
    };
    for (const auto& [name, end] : scenarios) {
        SCOPED_TRACE(name);
        auto engine = record();
        end(engine);
        spin(300ms);
        if (engine)
            EXPECT_FALSE(microphone->isRunning());
        EXPECT_TRUE(waitUntil([] { return dictationFiles().isEmpty(); })) << dictationFiles().join(' ').toStdString();
        EXPECT_FALSE(answers.answered());
    }
    // The sleeping fake was terminated, not waited for.
    EXPECT_TRUE(waitUntil([&] { return QProcess::execute("pgrep", {"-f", whisper.binaryPath()}) == 1; }));
}

TEST_F(WhisperTranscriberTest, AMicrophoneGoneMidDictationEndsItWithAnErrorAndNoRecording)
{
    auto engine = record();
    microphone->disconnect();
    EXPECT_EQ(answers.errors, QStringList({kDisconnected}));
    EXPECT_FALSE(microphone->isRunning());
    EXPECT_TRUE(dictationFiles().isEmpty());
    engine->finish();
    spin(300ms);
    EXPECT_EQ(answers.count(), 1);
    EXPECT_TRUE(whisper.lastArguments().isEmpty()) << "whisper-cli ran on what was left";
}

class RealMicrophone : public WhisperTranscriberTest {
protected:
    void SetUp() override
    {
        if (!hasPulseAudio())
            GTEST_SKIP() << "needs the PulseAudio harness (scripts/with-harness.sh)";
        WhisperTranscriberTest::SetUp();
    }
};

TEST_F(RealMicrophone, RecordsAt16kHzMonoAllThatWasPlayedAndNoMoreThanTheTimeHeld)
{
    const QString speech = testDataPath("speech/fleurs-pt-002.ogg");
    const double played = audioDuration(speech);
    ASSERT_GT(played, 5.0);

    WhisperTranscriber engine(std::make_unique<PulseAudioInput>());
    QElapsedTimer held;
    held.start();
    answers.start(engine);
    ASSERT_TRUE(playIntoMicrophone(speech));
    engine.finish();
    const double heldSeconds = held.elapsed() / 1000.0;
    ASSERT_TRUE(waitUntil([&] { return answers.answered(); }, 20s));
    EXPECT_EQ(answers.finals, QStringList({"texto de teste"}));

    const WavInfo recorded = readWav(whisper.lastInputCopy());
    EXPECT_TRUE(recorded.valid);
    EXPECT_EQ(QList<int>({recorded.channels, recorded.sampleRate, recorded.bitsPerSample}), QList<int>({1, 16000, 16}));
    // A wrong rate anywhere in the chain stretches or shrinks the recording by a large factor.
    EXPECT_GE(recorded.seconds(), played * 0.9);
    EXPECT_LE(recorded.seconds(), heldSeconds + 0.2);
}

TEST_F(RealMicrophone, UnpluggingItMidDictationIsReportedAndLeavesNothingBehind)
{
    Headset headset;
    ASSERT_TRUE(headset.isPlugged());
    auto input = std::make_unique<PulseAudioInput>();
    PulseAudioInput& microphone = *input;
    WhisperTranscriber engine(std::move(input));
    answers.start(engine);
    spin(500ms);
    ASSERT_TRUE(headset.unplug());
    ASSERT_TRUE(waitUntil([&] { return answers.answered(); }, 20s)) << "the unplugged microphone went unnoticed";
    EXPECT_EQ(answers.errors, QStringList({kDisconnected}));
    EXPECT_TRUE(answers.onMainThread);
    EXPECT_FALSE(microphone.isRunning());
    EXPECT_TRUE(dictationFiles().isEmpty());
    engine.finish();
    spin(300ms);
    EXPECT_EQ(answers.count(), 1);
    EXPECT_TRUE(whisper.lastArguments().isEmpty()) << "whisper-cli ran on what was left";
}

TEST(WhisperWithoutAudioServer, StartFailsAtOnce)
{
    // A separate process, so the audio system is looked up from scratch with no server to find.
    const QString probe = QStringLiteral(VOXARIA_HELPER_whisper_start_probe);
    FakeWhisper whisper;
    const QString beside = QFileInfo(probe).absolutePath() + "/whisper-cli";
    QFile::remove(beside);
    ASSERT_TRUE(QFile::copy(whisper.binaryPath(), beside));
    installModel(QStringLiteral("ggml-base.bin"));
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("PULSE_SERVER", "unix:/nonexistent/pulse/native");
    process.setProcessEnvironment(env);
    process.start(probe);
    ASSERT_TRUE(process.waitForFinished(20000)) << "start() hung without an audio server";
    QFile::remove(beside);
    EXPECT_EQ(QString::fromUtf8(process.readAllStandardOutput()).trimmed(),
              "Falha na transcrição Whisper: formato de áudio não suportado");
}

}
