// The real program under the headless desktop: keys pressed on the X server, speech played into the
// virtual microphone, text arriving in another application's window.
#include "AppRun.h"
#include "DesktopApps.h"
#include "HistoryFiles.h"
#include "LocalHttpServer.h"
#include "Shared/LiveSpeechModel.h"
#include "TestSupport.h"
#include "XTestKeyboard.h"

#include <QDir>
#include <QFileInfo>

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace {

constexpr int rightAlt = 108, rightSuper = 134, downKey = 116, rightKey = 114, enterKey = 36, escapeKey = 9;
const QString listening = "🎙️ Ouvindo… (solte a tecla para inserir)";

class EndToEnd : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!TestSupport::hasX11() || !TestSupport::hasPulseAudio())
            VOXARIA_SKIP("needs the headless desktop and microphone (run under scripts/with-harness.sh)");
        ASSERT_TRUE(receiver.start()) << "the receiving window did not come up";
        XTestKeyboard::focus(receiver.windowId());
    }

    // The tests' toy live model (the real layout, made-up weights), where the program looks.
    void installLiveModel()
    {
        const QString folder = app.dataFolder() + "/models";
        ASSERT_TRUE(QDir().mkpath(folder) && QFile::copy(VOXARIA_TOY_NEMOTRON_MODEL, folder + '/' + LiveSpeechModel::fileName()));
    }

    // The native engine's made-up words reach the HUD while the key is held, then the window and the history.
    void speakNatively(const QString& recording, int key = rightAlt)
    {
        const int from = app.lineCount();
        const qsizetype dictations = history().size();
        holdAndSpeak(TestSupport::testDataPath(recording), key);
        const int released = app.lineCount();
        ASSERT_TRUE(TestSupport::waitUntil([&] { return history().size() == dictations + 1; }, 30s)) << app.logText();
        const QString pasted = history().last().toObject().value("text").toString();
        EXPECT_TRUE(receiver.waitForText(pasted, 10s)) << "received: " << receiver.text().toStdString();
        const QStringList whileHeld = app.log().mid(from, released - from);
        EXPECT_FALSE(whileHeld.filter("voxaria.hud: Text").isEmpty()) << "no text on the HUD during the hold\n" << app.logText();
    }

    void holdAndSpeak(const QString& sound, int key = rightAlt)
    {
        const int from = app.lineCount();
        const auto pressedAt = std::chrono::steady_clock::now();
        ASSERT_TRUE(XTestKeyboard::press(key));
        ASSERT_TRUE(app.waitForLog(listening, 5s, from)) << app.logText();
        const bool played = TestSupport::playIntoMicrophone(sound);
        ASSERT_TRUE(XTestKeyboard::release(key));
        heldSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - pressedAt).count();
        ASSERT_TRUE(played) << "paplay could not play " << sound.toStdString();
    }

    QJsonArray history() const { return QJsonDocument::fromJson(HistoryFiles::read(app.dataFolder() + "/history.json")).array(); }

    void expectNothingInserted()
    {
        TestSupport::spin(1500ms);
        EXPECT_EQ(receiver.text(), QString());
        EXPECT_TRUE(history().isEmpty());
    }

    // Picks the item `steps` rows down the tray menu, then `subSteps` down its submenu; a screenshot when named.
    void chooseInTrayMenu(int steps, int subSteps = -1, const QString& screenshot = {})
    {
        bool shown = false; // a click while the last menu is still closing opens nothing
        for (int attempt = 0; attempt < 3 && !shown; ++attempt) {
            const int from = app.lineCount();
            ASSERT_TRUE(Desktop::clickTrayIcon());
            shown = app.waitForLog("menu shown", 5s, from);
        }
        ASSERT_TRUE(shown) << app.logText();
        for (int i = 0; i < steps; ++i)
            XTestKeyboard::tap(downKey, 20ms);
        if (subSteps >= 0) {
            const int before = app.lineCount();
            XTestKeyboard::tap(rightKey, 20ms);
            ASSERT_TRUE(app.waitForLog("menu shown", 10s, before));
            for (int i = 0; i < subSteps; ++i)
                XTestKeyboard::tap(downKey, 20ms);
        }
        if (!screenshot.isEmpty()) {
            EXPECT_TRUE(Desktop::screenshot(screenshot));
        }
        XTestKeyboard::tap(enterKey, 20ms);
    }
    bool settingBecomes(const QString& key, const QVariant& value)
    {
        return TestSupport::waitUntil([&] { return app.setting(key) == value; }, 10s);
    }

    ReceivingWindow receiver;
    AppRun app;
    double heldSeconds = 0;
};

TEST_F(EndToEnd, NativeEngineExplainsAMissingModelThenTypesTheSpeech)
{
    app.setSetting("engine", "apple");
    app.setSetting("playSounds", false); // the virtual microphone would hear them
    ASSERT_TRUE(app.start());
    ASSERT_TRUE(Desktop::waitForWindow("Voxaria", 10s)) << "no alert that neither engine can dictate in Portuguese here";
    EXPECT_TRUE(Desktop::screenshot("alert-no-engine.png"));
    XTestKeyboard::tap(enterKey, 20ms);
    EXPECT_TRUE(TestSupport::waitUntil([] { return !Desktop::waitForWindow("Voxaria", 0ms); }, 10s));
    XTestKeyboard::focus(receiver.windowId());

    const int from = app.lineCount();
    ASSERT_TRUE(XTestKeyboard::tap(rightAlt, 500ms));
    EXPECT_TRUE(app.waitForLog("⚠️ Reconhecimento de fala indisponível para o idioma pt-BR.", 5s, from)) << app.logText();
    expectNothingInserted();

    installLiveModel(); // while the program runs: the next press is transcribed live
    speakNatively("speech/fleurs-pt-000.ogg");
}

// A short press or a silent hold inserts nothing, a held key pastes what whisper-cli heard; the tray
// menu changes the key, the sounds, the language, the engine and the start with the session.
TEST_F(EndToEnd, AShortPressOrASilentHoldInsertsNothingAHeldOnePastesWhatWhisperHeardAndTheTrayMenuChangesTheSettings)
{
    const QString heard = "o texto que o whisper ouviu";
    app.useFakeWhisper("text=" + heard + "\n");
    DesktopApps::ClipboardOwner previous({{"text/plain", QByteArray("conteúdo anterior")}});
    ASSERT_TRUE(previous.isReady());
    ASSERT_TRUE(app.start());
    const int from = app.lineCount();
    ASSERT_TRUE(XTestKeyboard::tap(rightAlt, 0ms)); // a short press however slowly the machine runs
    ASSERT_TRUE(app.waitForLog(listening, 10s, from)) << app.logText();
    ASSERT_TRUE(app.waitForLog("short press", 10s, from)) << app.logText();
    expectNothingInserted();
    // Three seconds held in a silent room: whisper-cli's made-up text goes nowhere, not to the clipboard either.
    ASSERT_TRUE(XTestKeyboard::tap(rightAlt, 3000ms));
    ASSERT_TRUE(app.waitForLog("nothing speech-like was recorded", 10s, from)) << app.logText();
    expectNothingInserted();
    EXPECT_EQ(DesktopApps::clipboardData("text/plain"), "conteúdo anterior");

    const QString speech = TestSupport::testDataPath("speech/fleurs-pt-002.ogg");
    holdAndSpeak(speech);
    ASSERT_TRUE(receiver.waitForText(heard, 20s)) << app.logText();
    // Whisper heard all that was played (no lead-in or tail lost) and nothing from after the release.
    const TestSupport::WavInfo recorded = TestSupport::readWav(app.whisperInputCopy());
    ASSERT_TRUE(recorded.valid);
    EXPECT_GE(recorded.seconds(), 0.9 * TestSupport::audioDuration(speech));
    EXPECT_LE(recorded.seconds(), heldSeconds + 0.2);
    EXPECT_TRUE(app.log().filter("cannot be played").isEmpty()) << app.logText();

    chooseInTrayMenu(5, 1, "tray-menu-keys.png");
    ASSERT_TRUE(settingBecomes("hotKey", "rightCommand"));
    holdAndSpeak(speech, rightSuper);
    ASSERT_TRUE(TestSupport::waitUntil([&] { return receiver.text().count(heard) == 2; }, 20s)) << app.logText();

    chooseInTrayMenu(8); // sounds off: the virtual microphone would hear them
    ASSERT_TRUE(settingBecomes("playSounds", false));
    chooseInTrayMenu(6, 2);
    ASSERT_TRUE(settingBecomes("localeIdentifier", "en-US"));
    installLiveModel();
    chooseInTrayMenu(3, 1); // with its model in place the native engine is chosen at once, not offered
    ASSERT_TRUE(settingBecomes("engine", "apple"));
    speakNatively("speech/fleurs-en-000.ogg", rightSuper);

    const QString autostart = app.root() + "/home/.config/autostart/app.voxaria.Voxaria.desktop";
    chooseInTrayMenu(9);
    EXPECT_TRUE(TestSupport::waitUntil([&] { return QFileInfo::exists(autostart); }, 10s));
    chooseInTrayMenu(9);
    EXPECT_TRUE(TestSupport::waitUntil([&] { return !QFileInfo::exists(autostart); }, 10s));
}

// A second start opens the running copy's menu where the pointer is, and ends. A copy that crashed
// leaves its lock file behind; the next start takes it over instead of leaving.
TEST_F(EndToEnd, ASecondCopyOpensTheFirstsMenuEndingTheFirstMidDictationLeavesNoRecordingAndACrashLeavesNoLock)
{
    app.useFakeWhisper({});
    ASSERT_TRUE(app.start()) << app.logText();
    const int from = app.lineCount();
    QProcess second;
    second.setProcessEnvironment(app.process().processEnvironment());
    second.start(app.process().program(), {});
    ASSERT_TRUE(second.waitForFinished(10000)) << "the second copy did not leave";
    EXPECT_EQ(second.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(second.exitCode(), 0);
    EXPECT_TRUE(app.waitForLog("menu shown", 5s, from)) << app.logText();
    XTestKeyboard::tap(escapeKey, 20ms);

    // The first copy still answers the key.
    ASSERT_TRUE(XTestKeyboard::press(rightAlt));
    ASSERT_TRUE(app.waitForLog(listening, 5s)) << app.logText();
    EXPECT_FALSE(TestSupport::dictationFiles(app.temporaryFolder()).isEmpty());
    app.process().terminate();
    ASSERT_TRUE(app.waitForExit(5s));
    ASSERT_TRUE(XTestKeyboard::release(rightAlt));
    EXPECT_EQ(app.process().exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(app.process().exitCode(), 0);
    EXPECT_TRUE(TestSupport::dictationFiles(app.temporaryFolder()).isEmpty());

    ASSERT_TRUE(app.start()) << app.logText();
    app.process().kill();
    ASSERT_TRUE(app.waitForExit(5s));
    EXPECT_TRUE(app.start()) << app.logText();
    EXPECT_EQ(app.process().state(), QProcess::Running);
}

// Ended ("Sair do Voxaria" or a signal) during the start-up offer's download, the program ends at
// once, without asking, and what arrived waits in the models folder for the next download.
TEST_F(EndToEnd, QuittingDuringAModelDownloadEndsAtOnceAndKeepsThePart)
{
    LocalHttpServer server;
    server.setRoute("ggml-small-q5_1.bin", {.body = QByteArray(3 << 20, 'w'), .holdAt = 1 << 20});
    AppRun program(QStringLiteral(VOXARIA_HELPER_voxaria_localmodels));
    program.setEnvironment("VOXARIA_MODELS_URL", server.baseUrl().toString());
    program.useWhisperStandIn("#!/bin/sh\n");
    QFile::remove(program.dataFolder() + "/models/ggml-large-v3-turbo-q5_0.bin");
    ASSERT_TRUE(program.start());
    ASSERT_TRUE(Desktop::waitForWindow("Voxaria", 10s)) << "no download offer";
    XTestKeyboard::tap(enterKey, 20ms); // "Baixar agora (190 MB)"
    const QString part = program.dataFolder() + "/models/ggml-small-q5_1.bin.part";
    ASSERT_TRUE(TestSupport::waitUntil([&] { return QFileInfo(part).size() == 1 << 20; }, 10s)) << program.logText();

    program.process().terminate();
    ASSERT_TRUE(program.waitForExit(1s)) << "the download held the program up";
    EXPECT_EQ(program.process().exitCode(), 0);
    EXPECT_EQ(QFileInfo(part).size(), 1 << 20);
    EXPECT_FALSE(program.log().filter("quitting: the download of").isEmpty());
}

}
