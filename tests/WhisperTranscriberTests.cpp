#include "Engines/PhantomPhrases.h"
#include "Engines/SpeechGate.h"
#include "Engines/WhisperTranscriber.h"
#include "Media/AudioExtractor.h"
#include "Platform/Fakes/FakeAudioInput.h"
#include "Platform/Linux/Audio/PulseAudioInput.h"
#include "Platform/Linux/Audio/PulseDefaultSource.h"
#include "Shared/AppPaths.h"
#include "Shared/Preferences/Settings.h"
#include "Shared/ProcessorCores.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSettings>

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>

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

class WhisperTranscriberTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        QDir(AppPaths::modelsFolder()).removeRecursively();
        installModel(QStringLiteral("ggml-large-v3-turbo-q5_0.bin"));
        QSettings(QSettings::NativeFormat, QSettings::UserScope, AppPaths::applicationId()).clear();
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

    // The command line of the whisper-cli started for a dictation, while it runs.
    QString runningChild() const
    {
        QProcess pgrep;
        pgrep.start("pgrep", {"-a", "-f", whisper.binaryPath() + " -m"});
        return pgrep.waitForFinished() ? QString::fromUtf8(pgrep.readAll()) : QString();
    }

    // A dictation that has recorded `buffers` buffers of 4096 frames: silence, and a tone in every
    // other one, which the speech gate lets through; a whisper-cli that reads standard input is
    // running by the first of them.
    std::unique_ptr<WhisperTranscriber> record(int buffers = 11, bool voiced = true)
    {
        auto engine = makeEngine();
        answers = {};
        answers.start(*engine);
        if (!olderWhisper) {
            EXPECT_TRUE(waitUntil([&] { return runningChild().contains(" -f - "); })) << "whisper-cli did not start at key down";
        }
        std::vector<float> tone(size_t{4096} * 2);
        for (size_t i = 0; i < tone.size(); ++i)
            tone[i] = 0.3F * float(std::sin(double(i / 2) * 2 * std::numbers::pi * 220 / 48000));
        for (int i = 0; i < buffers; ++i) {
            const bool loud = voiced && i % 2 == 1;
            microphone->deliver(loud ? QByteArray(reinterpret_cast<const char*>(tone.data()), qsizetype(tone.size() * sizeof(float)))
                                     : QByteArray(4096 * 2 * sizeof(float), 0));
        }
        return engine;
    }

    // The same, released, and its answer, which must come later on the event loop.
    void dictate(int buffers = 11, bool voiced = true)
    {
        auto engine = record(buffers, voiced);
        engine->finish();
        EXPECT_FALSE(answers.answered()) << "answered from inside finish()";
        ASSERT_TRUE(waitUntil([&] { return answers.answered(); }, 20s));
    }

    // A whisper-cli whose help lists no --vad (older than 1.7.6): it is started at release, on the file.
    void useOlderWhisper()
    {
        whisper.script("novad=1");
        olderWhisper = true;
    }

    FakeWhisper whisper;
    bool olderWhisper = false;
    FakeAudioInput* microphone = nullptr;
    EngineAnswers answers;
};

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
    installModel("ggml-silero-v6.2.0.bin"); // the voice activity model
    EXPECT_EQ(WhisperTranscriber::modelURL(), modelPath("ggml-small-q5_1.bin"));

    QFile::remove(modelPath("ggml-small-q5_1.bin"));
    EXPECT_EQ(WhisperTranscriber::modelURL(), std::nullopt);
}

// PATH (Homebrew, Nix, ~/.local/bin) is looked at last: the one beside the program wins over it.
TEST_F(WhisperTranscriberTest, AWhisperCliOnPathServesOnlyWhenNoneIsInTheFixedPlaces)
{
    const QString onPath = AppPaths::dataFolder() + "/bin/whisper-cli";
    writeFile(onPath, "#!/bin/sh\n", true);
    const QByteArray savedPath = qgetenv("PATH");
    qputenv("PATH", QFileInfo(onPath).absolutePath().toUtf8() + ':' + savedPath);
    EXPECT_EQ(WhisperTranscriber::binaryURL(), whisper.binaryPath());
    QFile::remove(whisper.binaryPath());
    EXPECT_EQ(WhisperTranscriber::binaryURL(), onPath);
    qputenv("PATH", savedPath);
    EXPECT_EQ(WhisperTranscriber::binaryURL(), std::nullopt);
}

TEST_F(WhisperTranscriberTest, AStoredModelNameFindsNothingOutsideTheModelsFolder)
{
    QFile::remove(modelPath("ggml-large-v3-turbo-q5_0.bin"));
    writeFile(AppPaths::dataFolder() + "/ggml-outside.bin", "ggml");
    for (const QString name : {"/etc/passwd", "../ggml-outside.bin", "../models/../ggml-outside.bin", ":/sounds/Tink.wav", "", ".."}) {
        Settings::shared().setWhisperModelFileName(name);
        EXPECT_EQ(WhisperTranscriber::modelURL(), std::nullopt) << name.toStdString();
    }
}

TEST_F(WhisperTranscriberTest, StartFailsAtOnceWithTheMessageOfWhatIsMissing)
{
    QDir(AppPaths::modelsFolder()).removeRecursively();
    // A whisper-cli that cannot be executed is no program; the program is looked for before the model.
    QFile::setPermissions(whisper.binaryPath(), QFile::ReadOwner | QFile::WriteOwner);
    auto withoutProgram = makeEngine();
    EXPECT_EQ(answers.startFailure(*withoutProgram), "whisper-cli não encontrado. Instale com: sudo apt install whisper.cpp");
    FakeWhisper reinstalled;
    auto withoutModel = makeEngine();
    EXPECT_EQ(answers.startFailure(*withoutModel), "Modelo Whisper não encontrado em ~/.local/share/Voxaria/models/");
    installModel("ggml-small-q5_1.bin");

    // No microphone at all is met by WhisperWithoutAudioServer below.
    for (const AudioFormat format :
        {AudioFormat{0, 2, AudioFormat::SampleType::float32}, AudioFormat{48000, 0, AudioFormat::SampleType::float32}}) {
        auto engine = makeEngine();
        microphone->deviceFormat = format;
        EXPECT_EQ(answers.startFailure(*engine), "Falha na transcrição Whisper: formato de áudio não suportado");
        EXPECT_EQ(microphone->startCount, 0);
    }

    auto busy = makeEngine();
    microphone->startFailure = "O dispositivo de áudio está ocupado";
    EXPECT_EQ(answers.startFailure(*busy), "O dispositivo de áudio está ocupado");

    // A temporary "folder" that is a plain file cannot be written into, even by root.
    const QByteArray savedTmp = qgetenv("TMPDIR");
    const QString notAFolder = AppPaths::dataFolder() + "/not-a-folder";
    writeFile(notAFolder, {});
    qputenv("TMPDIR", notAFolder.toUtf8());
    auto cannotWrite = makeEngine();
    const QString unwritable = answers.startFailure(*cannotWrite);
    qputenv("TMPDIR", savedTmp);
    EXPECT_TRUE(unwritable.startsWith("Não foi possível criar a gravação")) << unwritable.toStdString();
    EXPECT_FALSE(microphone->isRunning()) << "a refused start left the microphone open";

    EXPECT_TRUE(dictationFiles().isEmpty()) << "a failed start removes its empty recording";
}

TEST_F(WhisperTranscriberTest, WhisperRunsWithTheElevenArgumentsOnA16kHzMonoRecording)
{
    // No language at all lets whisper-cli recognise whichever is spoken; it refuses an empty one. A
    // set language ("pt-BR" as "pt") is met by the end-to-end run, which the fake would refuse otherwise.
    Settings::shared().setLocaleIdentifier(QString());
    useOlderWhisper();
    dictate();
    EXPECT_EQ(answers.finals, QStringList({"texto de teste"})) << answers.errors.join(' ').toStdString();

    const QStringList args = whisper.lastArguments();
    ASSERT_EQ(args.size(), 14);
    const QString& wav = args[3];
    EXPECT_EQ(args,
        QStringList({"-m", modelPath("ggml-large-v3-turbo-q5_0.bin"), "-f", wav, "-l", "auto", "-t",
            QString::number(ProcessorCores::physical()), "-bs", "1", "--no-timestamps", "-otxt", "-of", wav.chopped(4)}));

    // The fake refuses anything but 16 kHz mono 16-bit PCM; the length shows the resampling.
    const WavInfo recorded = readWav(whisper.lastInputCopy());
    EXPECT_TRUE(recorded.valid);
    EXPECT_NEAR(recorded.seconds(), 11 * 4096 / 48000.0, 0.01);
    EXPECT_TRUE(dictationFiles().isEmpty());

    // Past 25 s, timestamps stay on so whisper.cpp drops no sentence; its lines come back joined.
    whisper.script("novad=1\ntext=Primeira frase.\\n Segunda frase. \\n");
    dictate(470);
    EXPECT_FALSE(whisper.lastArguments().contains("--no-timestamps"));
    EXPECT_EQ(answers.finals.value(0), "Primeira frase. Segunda frase.");
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
        {"text=  Hola, ¿qué tal?\\nSegunda línea \\n\\n", {"Hola, ¿qué tal? Segunda línea"}, {}},
        {"text=\n", {""}, {}},
        {"text= Obrigado por assistir!\n", {""}, {}},
        {"text=Obrigado por assistir à aula de ontem.", {"Obrigado por assistir à aula de ontem."}, {}},
        {"flood_stdout=32\ntext=ainda chega", {"ainda chega"}, {}},
        {"exit=3\nquiet=1\nstderr=primeira linha\nstderr=segunda linha\nstderr=\\n", {}, {failed + "segunda linha"}},
        {"notxt=1\nquiet=1", {}, {failed + "código 0"}},
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
    // Each whisper-cli started at key down, with timestamps, and read the completed WAV on standard input.
    EXPECT_EQ(whisper.lastArguments().mid(2, 8),
        QStringList({"-f", "-", "-l", "pt", "-t", QString::number(ProcessorCores::physical()), "-bs", "1"}));
    EXPECT_NEAR(readWav(whisper.lastInputCopy()).seconds(), 11 * 4096 / 48000.0, 0.01) << "the header went out before its sizes were known";
}

TEST_F(WhisperTranscriberTest, ASilentRecordingIsAnsweredEmptyWithoutRunningWhisper)
{
    dictate(11, false);
    EXPECT_EQ(answers.finals, QStringList({""}));
    EXPECT_TRUE(whisper.lastArguments().isEmpty()) << "whisper-cli ran on silence";
    EXPECT_TRUE(dictationFiles().isEmpty());
}

// Real speech against three seconds of what a held key records without it.
TEST(SpeechGate, HearsSpeechButNotSilenceHissOrHum)
{
    std::mt19937 random(7);
    std::uniform_real_distribution<double> white(-0.1, 0.1);
    double low = 0, middle = 0, high = 0;
    const std::pair<const char*, std::function<double(int)>> sounds[] = {
        {"digital silence", [](int) { return 0.0; }},
        {"white noise", [&](int) { return white(random); }},
        {"pink noise",
            [&](int) {
                const double w = white(random);
                low = 0.99765 * low + w * 0.0990460;
                middle = 0.963 * middle + w * 0.2965164;
                high = 0.57 * high + w * 1.0526913;
                return low + middle + high + w * 0.1848;
            }},
        {"mains hum",
            [](int i) {
                return 0.2 * std::sin(i * 2 * std::numbers::pi * 50 / 16000) + 0.05 * std::sin(i * 2 * std::numbers::pi * 150 / 16000);
            }},
    };
    for (const auto& [name, sound] : sounds) {
        std::vector<qint16> samples(size_t{3} * SpeechGate::kSampleRate);
        for (size_t i = 0; i < samples.size(); ++i)
            samples[i] = qint16(std::lround(std::clamp(sound(int(i)), -1.0, 1.0) * 32767));
        SpeechGate gate;
        gate.add(samples);
        EXPECT_FALSE(gate.heardSpeech()) << name;
    }
    for (const QString clip : {"speech/jfk.wav", "speech/fleurs-pt-000.ogg", "speech/fleurs-pt-004.ogg", "speech/fleurs-en-002.ogg"}) {
        const QString wav = AppPaths::dataFolder() + "/clip.wav";
        AudioExtractor::extractWAV(testDataPath(clip), wav);
        QFile file(wav);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QByteArray pcm = file.readAll().mid(44);
        SpeechGate gate;
        gate.add({reinterpret_cast<const qint16*>(pcm.constData()), size_t(pcm.size()) / 2});
        EXPECT_TRUE(gate.heardSpeech()) << clip.toStdString();
    }
}

// Whole transcripts only, whatever their case, accents, punctuation and spacing.
TEST(PhantomPhrases, AWholeTranscriptThatIsAPhantomPhraseIsDroppedAndRealTextKept)
{
    const PhantomPhrases& phrases = PhantomPhrases::bundled();
    for (const QString phantom : {"Legendas pela comunidade Amara.org", "  obrigada.", "OBRIGADO POR ASSISTIR!!", "Tchau tchau.",
             "até a PROXIMA...", "[Música]", "(musica)", "[BLANK_AUDIO]", "Inscreva-se no canal!", "Thank you.", "you"})
        EXPECT_EQ(phrases.withoutPhantom(phantom), QString()) << phantom.toStdString();
    for (const QString real : {"Obrigado por assistir à aula de ontem.", "Obrigado, Maria.", "Você", "thank you all", "Música alta", ""})
        EXPECT_EQ(phrases.withoutPhantom(real), real) << real.toStdString();
}

TEST_F(WhisperTranscriberTest, ProgramGoneOrUnlaunchableAtReleaseIsReportedThroughOnError)
{
    useOlderWhisper();
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
    whisper.script("hold=1\ntext=tarde demais");
    const std::pair<const char*, std::function<void(std::unique_ptr<WhisperTranscriber>&)>> scenarios[] = {
        {"while recording", [](auto& engine) { engine->cancel(); }},
        {"right after finish",
            [](auto& engine) {
                engine->finish();
                engine->cancel();
            }},
        {"while whisper-cli runs",
            [](auto& engine) {
                engine->finish();
                spin(500ms);
                engine->cancel();
            }},
        {"engine dropped while whisper-cli runs",
            [](auto& engine) {
                engine->finish();
                spin(500ms);
                engine.reset();
            }},
    };
    for (const auto& [name, end] : scenarios) {
        SCOPED_TRACE(name);
        auto engine = record();
        end(engine);
        spin(300ms);
        if (engine) {
            EXPECT_FALSE(microphone->isRunning());
        }
        EXPECT_TRUE(waitUntil([] { return dictationFiles().isEmpty(); })) << dictationFiles().join(' ').toStdString();
        EXPECT_FALSE(answers.answered());
    }
    // The held fake was terminated, not waited for.
    EXPECT_TRUE(waitUntil([&] { return QProcess::execute("pgrep", {"-f", whisper.binaryPath()}) == 1; }));
}

QStringList g_whisperLog;

// The real whisper-cli 1.9.3 on real speech, with a model of vocabulary only: it loads and hears
// nothing. No Vulkan driver is offered, so its Vulkan module finds no device and the CPU computes,
// which the log says.
TEST_F(WhisperTranscriberTest, TheRealWhisperCliLoadsWhileTheKeyIsHeldAndEndsWithTheDictation)
{
    const QString realWhisper = VOXARIA_BUILT_WHISPER_CLI, testModel = VOXARIA_WHISPER_TEST_MODELS "/for-tests-ggml-tiny.bin";
    if (!QFileInfo::exists(realWhisper) || !QFileInfo::exists(testModel))
        GTEST_SKIP() << "whisper-cli is not built here (VOXARIA_BUILD_WHISPER_CLI=OFF or no whisper.cpp source)";
    ASSERT_TRUE(QFile::remove(whisper.binaryPath()) && QFile::link(realWhisper, whisper.binaryPath()));
    QFile::remove(modelPath("ggml-large-v3-turbo-q5_0.bin"));
    ASSERT_TRUE(QFile::link(testModel, modelPath("ggml-large-v3-turbo-q5_0.bin")));
    QFile speech(testDataPath("speech/jfk.wav"));
    ASSERT_TRUE(speech.open(QIODevice::ReadOnly));
    const QByteArray samples = speech.readAll().mid(44);
    qputenv("VK_ICD_FILENAMES", "/nonexistent/icd.json");
    g_whisperLog.clear();
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext& context, const QString& message) {
        if (qstrcmp(context.category, "voxaria.whisper") == 0)
            g_whisperLog.append(message);
    });
    for (const bool cancelled : {false, true}) {
        SCOPED_TRACE(cancelled ? "cancelled" : "finished");
        auto engine = makeEngine();
        microphone->deviceFormat = AudioFormat{16000, 1, AudioFormat::SampleType::int16};
        answers = {};
        answers.start(*engine);
        ASSERT_TRUE(waitUntil([&] { return runningChild().contains(" -f - "); }, 20s)) << "whisper-cli did not start at key down";
        for (qsizetype at = 0; at < samples.size(); at += 8192)
            microphone->deliver(samples.mid(at, 8192));
        cancelled ? engine->cancel() : engine->finish();
        EXPECT_TRUE(waitUntil([&] { return runningChild().isEmpty() && (cancelled || answers.answered()); }, 120s));
        EXPECT_EQ(answers.finals + answers.errors, cancelled ? QStringList() : QStringList({""}));
        EXPECT_TRUE(waitUntil([] { return dictationFiles().isEmpty(); })) << dictationFiles().join(' ').toStdString();
    }
    qInstallMessageHandler(nullptr);
    qunsetenv("VK_ICD_FILENAMES");
    EXPECT_EQ(g_whisperLog.filter("whisper-cli ran on CPU").size(), 1) << g_whisperLog.join('\n').toStdString();
}

// The other engine meets the same through the fake microphone (SpeechTranscriberTests).
TEST_F(WhisperTranscriberTest, AMicrophoneUnpluggedOrFallenSilentMidDictationIsReportedOnceAndLeavesNothingBehind)
{
    if (!hasPulseAudio())
        GTEST_SKIP() << "needs the PulseAudio harness (scripts/with-harness.sh)";
    const std::pair<const char*, std::function<bool(Headset&)>> losses[] = {
        {"unplugged", [](Headset& headset) { return headset.unplug(); }},
        {"fallen silent", [](Headset& headset) { return headset.fallSilent(); }},
    };
    for (const auto& [name, lose] : losses) {
        SCOPED_TRACE(name);
        Headset headset;
        ASSERT_TRUE(headset.isPlugged());
        // The new default is followed on the one connection the program keeps, not asked on a new one.
        ASSERT_TRUE(waitUntil([&] { return PulseDefaultSource::shared().name() == headset.source(); }));
        EXPECT_EQ(pulseListing({"clients"}).count("application.name = \"Voxaria\""), 1);
        auto input = std::make_unique<PulseAudioInput>();
        PulseAudioInput& realMicrophone = *input;
        WhisperTranscriber engine(std::move(input));
        answers = {};
        answers.start(engine);
        spin(500ms);
        ASSERT_TRUE(lose(headset));
        ASSERT_TRUE(waitUntil([&] { return answers.answered(); }, 20s)) << "the lost microphone went unnoticed";
        EXPECT_EQ(answers.errors, QStringList({"O microfone foi desconectado durante o ditado."}));
        EXPECT_TRUE(answers.onMainThread);
        EXPECT_FALSE(realMicrophone.isRunning());
        EXPECT_TRUE(dictationFiles().isEmpty());
        engine.finish();
        spin(300ms);
        EXPECT_EQ(answers.count(), 1);
        EXPECT_TRUE(whisper.lastArguments().isEmpty()) << "whisper-cli ran on what was left";
    }
    EXPECT_TRUE(waitUntil([] { return PulseDefaultSource::shared().name() == "voxaria_mic"; }));
}

// A child copy of this program runs the check, so the audio system is looked up from scratch with no
// server to find.
TEST(WhisperWithoutAudioServer, StartFailsAtOnce)
{
    if (qEnvironmentVariableIsSet("VOXARIA_CHILD_WITHOUT_AUDIO_SERVER")) {
        FakeWhisper whisper;
        installModel(QStringLiteral("ggml-base.bin"));
        WhisperTranscriber engine;
        EngineAnswers answers;
        EXPECT_EQ(answers.startFailure(engine), "Falha na transcrição Whisper: formato de áudio não suportado");
        return;
    }
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("PULSE_SERVER", "unix:/nonexistent/pulse/native");
    env.insert("VOXARIA_CHILD_WITHOUT_AUDIO_SERVER", "1");
    child.setProcessEnvironment(env);
    child.setProcessChannelMode(QProcess::MergedChannels);
    child.start(QCoreApplication::applicationFilePath(), {"--gtest_filter=WhisperWithoutAudioServer.*"});
    ASSERT_TRUE(child.waitForFinished(20000)) << "start() hung without an audio server";
    EXPECT_EQ(child.exitCode(), 0) << child.readAll().toStdString();
}

}
