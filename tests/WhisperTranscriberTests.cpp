#include "DesktopApps.h"
#include "Dictation/DictationController.h"
#include "Dictation/HUDPanel.h"
#include "Engines/PhantomPhrases.h"
#include "Engines/SpeechGate.h"
#include "Engines/WhisperTranscriber.h"
#include "GateSounds.h"
#include "Media/AudioExtractor.h"
#include "Platform/Fakes/FakeAccessibilityTrust.h"
#include "Platform/Fakes/FakeAudioInput.h"
#include "Platform/Fakes/FakeFrontApplication.h"
#include "Platform/Linux/Audio/PulseAudioInput.h"
#include "Platform/Linux/Audio/PulseDefaultSource.h"
#include "Platform/Linux/Audio/SoxrAudioConverter.h"
#include "Platform/Linux/Desktop/ProcessActivity.h"
#include "Platform/Linux/Media/FFmpegMediaReader.h"
#include "Shared/AppPaths.h"
#include "Shared/ProcessorCores.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QWidget>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <numbers>
#include <random>

using namespace std::chrono_literals;
using namespace TestSupport;

// The real whisper-cli and whisper.cpp's test models are built with the tests; without them a test
// that needs them fails in CI and is skipped elsewhere.
#define REQUIRE_REAL_WHISPER()                                                                                                             \
    if (!QFileInfo::exists(VOXARIA_BUILT_WHISPER_CLI) || !QFileInfo::exists(realTestModel()))                                              \
    VOXARIA_SKIP("whisper-cli is not built here (VOXARIA_BUILD_WHISPER_CLI=OFF or no whisper.cpp source)")

namespace {

// whisper.cpp's test model: the header and vocabulary of the tiny model, no weights. It loads, and hears nothing.
QString realTestModel()
{
    return QStringLiteral(VOXARIA_WHISPER_TEST_MODELS "/for-tests-ggml-tiny.bin");
}

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
        for (const QString& leftover : dictationFiles())
            QFile::remove(leftover);
    }

    // An engine on a fake microphone delivering 48 kHz stereo float, as desktop microphones do.
    std::unique_ptr<WhisperTranscriber> makeEngine()
    {
        auto input = std::make_unique<FakeAudioInput>();
        input->deviceFormat = AudioFormat{48000, 2, AudioFormat::SampleType::float32};
        microphone = input.get();
        return std::make_unique<WhisperTranscriber>(
            std::move(input), &SoxrAudioConverter::make, &ProcessActivity::waitsOnStandardInput, options);
    }

    // The command line of the whisper-cli started for a dictation, while it runs.
    QString runningChild() const
    {
        QProcess pgrep;
        pgrep.start("pgrep", {"-a", "-f", whisper.binaryPath() + " -m"});
        return pgrep.waitForFinished() ? QString::fromUtf8(pgrep.readAll()) : QString();
    }

    // A dictation that has recorded `buffers` buffers of 4096 frames of speech() on the fake
    // microphone; a whisper-cli that reads standard input is running by the first of them.
    std::unique_ptr<WhisperTranscriber> record(int buffers = 11, float loudness = 0.3F)
    {
        auto engine = makeEngine();
        answers = {};
        answers.start(*engine);
        if (!olderWhisper) {
            EXPECT_TRUE(waitUntil([&] { return runningChild().contains(" -f - "); })) << "whisper-cli did not start at key down";
        }
        speak(buffers, loudness);
        return engine;
    }

    // Silence, and a 220 Hz square wave of peak `loudness` in every other buffer, which the speech gate
    // takes for vowels: its harmonics stay periodic even a few steps above digital silence.
    void speak(int buffers, float loudness)
    {
        std::vector<float> tone(size_t{4096} * 2);
        for (size_t i = 0; i < tone.size(); ++i)
            tone[i] = std::sin(double(i / 2) * 2 * std::numbers::pi * 220 / 48000) < 0 ? -loudness : loudness;
        for (int i = 0; i < buffers; ++i) {
            const bool loud = i % 2 == 1;
            microphone->deliver(loud ? QByteArray(reinterpret_cast<const char*>(tone.data()), qsizetype(tone.size() * sizeof(float)))
                                     : QByteArray(4096 * 2 * sizeof(float), 0));
        }
    }

    // The real whisper-cli in place of the fake, with `model`'s bytes as the dictation model.
    void useRealWhisper(const QByteArray& model)
    {
        ASSERT_TRUE(QFile::remove(whisper.binaryPath()) && QFile::link(VOXARIA_BUILT_WHISPER_CLI, whisper.binaryPath()));
        writeFile(modelPath("ggml-large-v3-turbo-q5_0.bin"), model);
    }

    // Real speech on a 16 kHz microphone.
    std::unique_ptr<WhisperTranscriber> recordRealSpeech()
    {
        QFile speech(testDataPath("speech/jfk.wav"));
        EXPECT_TRUE(speech.open(QIODevice::ReadOnly));
        const QByteArray samples = speech.readAll().mid(44);
        auto engine = makeEngine();
        microphone->deviceFormat = AudioFormat{16000, 1, AudioFormat::SampleType::int16};
        answers = {};
        answers.start(*engine);
        for (qsizetype at = 0; at < samples.size(); at += 8192)
            microphone->deliver(samples.mid(at, 8192));
        return engine;
    }

    // The same, released, and its answer, which must come later on the event loop.
    void dictate(int buffers = 11, float loudness = 0.3F)
    {
        auto engine = record(buffers, loudness);
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
    DictationOptions options{QStringLiteral("pt-BR"), QStringLiteral("ggml-large-v3-turbo-q5_0.bin")};
    bool olderWhisper = false;
    FakeAudioInput* microphone = nullptr;
    EngineAnswers answers;
};

TEST_F(WhisperTranscriberTest, ModelIsTheSelectedFileElseTheFirstLargeElseTheFirstBin)
{
    EXPECT_EQ(WhisperTranscriber::modelURL("ggml-large-v3-turbo-q5_0.bin"), modelPath("ggml-large-v3-turbo-q5_0.bin"));

    installModel("ggml-base-q5_1.bin");
    EXPECT_EQ(WhisperTranscriber::modelURL("ggml-medium.bin"), modelPath("ggml-large-v3-turbo-q5_0.bin"));

    QFile::remove(modelPath("ggml-large-v3-turbo-q5_0.bin"));
    QFile::remove(modelPath("ggml-base-q5_1.bin"));
    installModel("ggml-small-q5_1.bin");
    installModel("LEIA-ME.txt");
    installModel("ggml-LARGE.bin.part");
    installModel("ggml-silero-v6.2.0.bin"); // the voice activity model
    EXPECT_EQ(WhisperTranscriber::modelURL("ggml-medium.bin"), modelPath("ggml-small-q5_1.bin"));

    QFile::remove(modelPath("ggml-small-q5_1.bin"));
    EXPECT_EQ(WhisperTranscriber::modelURL("ggml-medium.bin"), std::nullopt);
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
        EXPECT_EQ(WhisperTranscriber::modelURL(name), std::nullopt) << name.toStdString();
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

    // A microphone that cannot open answers later, as the dictation's error.
    auto busy = makeEngine();
    microphone->startFailure = "O dispositivo de áudio está ocupado";
    EXPECT_EQ(answers.startFailure(*busy), "started");
    ASSERT_TRUE(waitUntil([&] { return answers.answered(); }));
    EXPECT_EQ(answers.errors, QStringList({"O dispositivo de áudio está ocupado"}));

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
    options.localeIdentifier.clear();
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
        {"flood_stdout=32\ntext=ainda chega", {"ainda chega"}, {}},
        {"exit=3\nquiet=1\nstderr=primeira linha\nstderr=segunda linha\nstderr=\\n", {}, {failed + "segunda linha"}},
        {"notxt=1\nquiet=1", {}, {failed + "código 0"}},
        {"exit=1\nquiet=1\nstderr_hex=ff", {}, {failed + "código 1"}},
        // One byte that is not UTF-8 (a character cut at a segment's edge) costs that character only.
        {"text_hex=4f6cff61\nquiet=1\nstderr=aviso: saída truncada", {"Ol\uFFFDa"}, {}},
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

// Our recordings, quieter and under noise, against what a held key records without speech: the
// table of what the gate heard is printed.
TEST(SpeechGate, HearsEveryVoiceSoftOrInNoiseAndNoneOfTheNoisesOfADesk)
{
    using namespace GateSounds;
    enum Expected { speech, tooQuiet, nothing };
    struct Case {
        std::string name;
        Samples sound;
        Expected expected;
    };
    std::vector<Case> cases;
    // fleurs-en-002 is recorded 30 dB below the others: at -30 dB its loudest vowel is at -82 dBFS,
    // a few steps of a 16-bit sample, which only the hint to speak up can help.
    const std::pair<const char*, std::vector<int>> clips[] = {{"speech/jfk.wav", {0, -10, -20, -30}},
        {"speech/fleurs-pt-000.ogg", {0, -10, -20, -30}}, {"speech/fleurs-pt-004.ogg", {0, -10, -20, -30}},
        {"speech/fleurs-en-000.ogg", {0, -10, -20, -30}}, {"speech/fleurs-en-002.ogg", {0, -10, -20}}};
    for (const auto& [clip, levels] : clips) {
        const QString wav = AppPaths::dataFolder() + "/clip.wav";
        FFmpegMediaReader reader;
        AudioExtractor::extractWAV(reader, testDataPath(clip), wav);
        QFile file(wav);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QByteArray pcm = file.readAll().mid(44);
        const Samples voice = fromPcm(
            {reinterpret_cast<const qint16*>(pcm.constData()), reinterpret_cast<const qint16*>(pcm.constData()) + pcm.size() / 2});
        const std::string name = QFileInfo(clip).baseName().toStdString();
        for (const int level : levels)
            cases.push_back({name + " " + std::to_string(level) + " dB", louder(voice, level), speech});
        for (const int snr : {10, 5})
            cases.push_back({name + " in fan noise, SNR " + std::to_string(snr) + " dB", withNoise(voice, fan(5), snr), speech});
        if (name == "fleurs-en-002")
            cases.push_back({name + " -30 dB", louder(voice, -30), tooQuiet});
    }
    cases.push_back({"silence", silence(3), nothing});
    cases.push_back({"mains hum", hum(3), nothing});
    cases.push_back({"transformer buzz", buzz(3), nothing});
    // A microphone's first buffers may be digital silence; the floor is the room's all the same.
    Samples afterSilentStart = buzz(3);
    afterSilentStart.insert(afterSilentStart.begin(), 4800, 0.0);
    cases.push_back({"transformer buzz after 0.3 s of digital silence", afterSilentStart, nothing});
    cases.push_back({"fan", fan(3), nothing});
    cases.push_back({"loud fan", louder(fan(3), 20), nothing});
    cases.push_back({"cough", cough(), nothing});
    cases.push_back({"door", door(), nothing});
    cases.push_back({"typing", typing(3), nothing});
    cases.push_back({"dictation key click", keyClick(), nothing});

    const char* verdicts[] = {"speech", "too quiet", "nothing"};
    std::printf("%-40s %-10s %-10s %s\n", "recording", "expected", "heard", "voiced ms");
    for (const Case& c : cases) {
        SpeechGate gate;
        gate.add(toPcm(c.sound));
        const SpeechGate::Hearing heard = gate.hearing();
        std::printf("%-40s %-10s %-10s %lld\n", c.name.c_str(), verdicts[c.expected], verdicts[int(heard.verdict)],
            qlonglong(heard.voiced.count()));
        EXPECT_EQ(int(heard.verdict), int(c.expected)) << c.name;
    }
}

// Whole transcripts only, whatever their case, accents, punctuation, spacing and repetition. A
// courtesy phrase is dropped only when less speech was heard than saying it takes.
TEST(PhantomPhrases, WhatNobodyDictatesIsDroppedAndWhatSomebodySaidIsKept)
{
    const PhantomPhrases& phrases = PhantomPhrases::bundled();
    const auto heard = [](int ms) { return std::chrono::milliseconds(ms); };
    for (const QString phantom : {"Legendas pela comunidade Amara.org", "OBRIGADO POR ASSISTIR!!", "Tchau tchau.", "até a PROXIMA...",
             "[Música]", "(musica)", "[BLANK_AUDIO]", "Inscreva-se no canal!", "you", "Inscreva-se no canal. Inscreva-se no canal.",
             "Obrigado. Legendas pela comunidade Amara.org"})
        EXPECT_EQ(phrases.withoutPhantom(phantom, heard(60000)), QString()) << phantom.toStdString();
    const std::tuple<QString, int, bool> courtesy[]
        = {{"  obrigada.", 200, true}, {"Obrigado.", 250, true}, {"Thank you.", 240, true}, {"Obrigado. Obrigado.", 500, true},
            {"Obrigado! Obrigada.", 350, true}, {"Obrigado.", 600, false}, {"Thank you.", 400, false}, {"Obrigado, obrigado.", 900, false}};
    for (const auto& [text, ms, dropped] : courtesy)
        EXPECT_EQ(phrases.withoutPhantom(text, heard(ms)), dropped ? QString() : text) << text.toStdString() << " after " << ms << " ms";
    for (const QString real : {"Obrigado por assistir à aula de ontem.", "Obrigado, Maria.", "Você", "thank you all", "Música alta", ""})
        EXPECT_EQ(phrases.withoutPhantom(real, heard(0)), real) << real.toStdString();
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

// The real whisper-cli on real speech, with a model of vocabulary only: it loads while the key is
// held, reads the recording the gate let through at the release, and hears nothing. No Vulkan
// driver is offered, so its Vulkan module finds no device and the CPU computes, which the log says.
TEST_F(WhisperTranscriberTest, TheRealWhisperCliLoadsWhileTheKeyIsHeldAndEndsWithTheDictation)
{
    REQUIRE_REAL_WHISPER();
    useRealWhisper(DesktopApps::readAll(realTestModel()));
    qputenv("VK_ICD_FILENAMES", "/nonexistent/icd.json");
    g_whisperLog.clear();
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext& context, const QString& message) {
        if (qstrcmp(context.category, "voxaria.whisper") == 0)
            g_whisperLog.append(message);
    });
    for (const bool cancelled : {false, true}) {
        SCOPED_TRACE(cancelled ? "cancelled" : "finished");
        auto engine = recordRealSpeech();
        ASSERT_TRUE(waitUntil([&] { return runningChild().contains(" -f - "); }, 20s)) << "whisper-cli did not start at key down";
        // The test model loads in well under this; the key is still held.
        spin(1500ms);
        cancelled ? engine->cancel() : engine->finish();
        EXPECT_TRUE(waitUntil([&] { return runningChild().isEmpty() && (cancelled || answers.answered()); }, 120s));
        EXPECT_EQ(answers.finals + answers.errors, cancelled ? QStringList() : QStringList({""}));
        if (!cancelled) {
            // Empty because whisper-cli answered so, not because the gate kept the recording from it.
            ASSERT_TRUE(engine->timing());
            EXPECT_TRUE(
                engine->timing()->note.contains(QRegularExpression("^model loaded while recording; audio read \\d+ ms after release$")))
                << engine->timing()->note.toStdString();
        }
        EXPECT_TRUE(waitUntil([] { return dictationFiles().isEmpty(); })) << dictationFiles().join(' ').toStdString();
    }
    qInstallMessageHandler(nullptr);
    qunsetenv("VK_ICD_FILENAMES");
    EXPECT_EQ(g_whisperLog.filter("whisper-cli ran on CPU").size(), 1) << g_whisperLog.join('\n').toStdString();
}

// A model cut short: inside its vocabulary, whisper-cli takes it for an empty test model and answers
// nothing; inside its magic number, it cannot load it and ends at key down, before the release.
// Either is a damaged model.
TEST_F(WhisperTranscriberTest, AModelTheRealWhisperCliCannotLoadIsReportedDamagedNotAsSilence)
{
    REQUIRE_REAL_WHISPER();
    const QByteArray bytes = DesktopApps::readAll(realTestModel());
    for (const qsizetype kept : {bytes.size() / 4, qsizetype{2}}) {
        SCOPED_TRACE(kept);
        useRealWhisper(bytes.left(kept));
        auto engine = recordRealSpeech();
        // Long enough for whisper-cli to give up on a 2-byte model before the release.
        spin(1500ms);
        EXPECT_EQ(runningChild().isEmpty(), kept == 2);
        engine->finish();
        ASSERT_TRUE(waitUntil([&] { return answers.answered(); }, 120s));
        EXPECT_EQ(answers.errors,
            QStringList({"O modelo Whisper ggml-large-v3-turbo-q5_0.bin está danificado: remova-o e baixe-o de novo "
                         "no menu Modelo Whisper."}));
        EXPECT_TRUE(waitUntil([] { return dictationFiles().isEmpty(); }));
    }
}

// Through the dictation controller: a faint voice and a hung whisper-cli each say on the HUD what
// happened, the hung one is ended once the time a recording of its length may take is up, the next
// press of the key dictates, and every dictation, whatever its end, writes its timing line and
// leaves no recording behind.
TEST_F(WhisperTranscriberTest, TheHudSaysWhenTheVoiceIsTooFaintOrWhisperHungAndTheNextPressDictates)
{
    static QStringList timingLines;
    timingLines.clear();
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& message) {
        if (message.startsWith("dictation timing"))
            timingLines << message;
    });
    QStringList inserted;
    auto panel = std::make_unique<HUDPanel>();
    const HUDPanel* hud = panel.get();
    std::chrono::milliseconds recording{-1};
    DictationController controller({[&] {
                                        auto engine = makeEngine();
                                        engine->setAnswerBound([&](std::chrono::milliseconds length) {
                                            recording = length;
                                            return 1s;
                                        });
                                        return engine;
                                    },
        {}, std::make_unique<FakeAccessibilityTrust>(), std::make_unique<FakeFrontApplication>(),
        [&](const QString& text, const FrontApplication::Answer&, std::function<void()> onPasted) {
            inserted << text;
            onPasted();
            return TextInserter::Mode::paste;
        },
        {}, std::move(panel)});
    const auto dictateFor = [&](KeyEventTime at, float loudness) {
        controller.startRecording(at);
        speak(11, loudness);
        controller.stopRecordingAndInsert(at + 1000);
        return waitUntil([&] { return controller.state() == DictationController::State::idle; }, 20s);
    };
    const auto hudStatus = [&] { return hud->panel()->accessibleName(); };
    ASSERT_TRUE(dictateFor(1000, 0.00012F));
    EXPECT_EQ(hudStatus(), "⚠️ Fale mais perto do microfone ou aumente o volume de entrada.");
    EXPECT_TRUE(whisper.lastArguments().isEmpty()) << "whisper-cli ran on a voice too faint";
    whisper.script("hold=1");
    ASSERT_TRUE(dictateFor(5000, 0.3F));
    EXPECT_EQ(hudStatus(), "⚠️ O Whisper não respondeu a tempo e foi interrompido. Tente de novo.");
    EXPECT_NEAR(double(recording.count()), 11 * 4096 * 1000 / 48000.0, 5);
    EXPECT_TRUE(waitUntil([&] { return QFile::exists(whisper.binaryPath() + ".terminated"); })) << "the hung whisper-cli was not ended";
    whisper.script("text=de novo");
    ASSERT_TRUE(dictateFor(9000, 0.3F));
    ASSERT_TRUE(dictateFor(13000, 0));
    qInstallMessageHandler(nullptr);
    EXPECT_EQ(inserted, QStringList({"de novo"}));
    EXPECT_TRUE(waitUntil([] { return dictationFiles().isEmpty(); })) << dictationFiles().join(' ').toStdString();
    ASSERT_EQ(timingLines.size(), 4) << timingLines.join('\n').toStdString();
    EXPECT_TRUE(timingLines[0].contains(QRegularExpression("failure shown \\d+; whisper-cli not run: the gate heard a voice too faint")))
        << timingLines[0].toStdString();
    EXPECT_TRUE(timingLines[1].contains(QRegularExpression("whisper-cli done \\d+, done → failure shown \\d+; model")))
        << timingLines[1].toStdString();
    EXPECT_TRUE(timingLines[2].contains(QRegularExpression("whisper-cli done \\d+, done → paste done \\d+; model")))
        << timingLines[2].toStdString();
    EXPECT_TRUE(timingLines[3].contains(QRegularExpression("nothing to paste \\d+; whisper-cli not run: the gate heard no speech")))
        << timingLines[3].toStdString();
}

// The other engine meets the same through the fake microphone (SpeechTranscriberTests).
TEST_F(WhisperTranscriberTest, AMicrophoneUnpluggedOrFallenSilentMidDictationIsReportedOnceAndLeavesNothingBehind)
{
    if (!hasPulseAudio())
        VOXARIA_SKIP("needs the PulseAudio harness (scripts/with-harness.sh)");
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
        WhisperTranscriber engine(std::move(input), &SoxrAudioConverter::make, &ProcessActivity::waitsOnStandardInput, options);
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
        WhisperTranscriber engine(
            std::make_unique<PulseAudioInput>(), &SoxrAudioConverter::make, &ProcessActivity::waitsOnStandardInput, {});
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
