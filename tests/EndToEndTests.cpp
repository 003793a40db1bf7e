// The real program under the headless desktop: keys pressed on the X server, speech played into the
// virtual microphone, text arriving in another application's window.
#include "AppRun.h"
#include "DesktopApps.h"
#include "TestSupport.h"
#include "XTestKeyboard.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace {

constexpr int rightAlt = 108;
const QString listening = QStringLiteral("🎙️ Ouvindo… (solte a tecla para inserir)");
const QString transcribing = QStringLiteral("✍️ Transcrevendo…");
const QString goForwardRaw = QStringLiteral("/usr/share/pocketsphinx/test/data/goforward.raw");

enum class Tint { normal, red, orange };

// The colour the tray icon's waveform is drawn in now: red and orange are unmistakable, anything
// else is the normal colour.
Tint trayIconTint()
{
    const QList<quint64> icons = Desktop::trayIconWindows(QStringLiteral("Voxaria"));
    if (icons.size() != 1)
        return Tint::normal;
    const QImage image = Desktop::windowImage(icons.first());
    int red = 0;
    int orange = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QColor pixel = image.pixelColor(x, y);
            if (pixel.red() < 230 || pixel.blue() > 80)
                continue;
            if (pixel.green() < 90)
                ++red;
            else if (pixel.green() > 120 && pixel.green() < 180)
                ++orange;
        }
    }
    if (red > 10 && red > orange)
        return Tint::red;
    return orange > 10 ? Tint::orange : Tint::normal;
}

class EndToEnd : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!TestSupport::hasX11() || !TestSupport::hasPulseAudio())
            GTEST_SKIP() << "needs the headless desktop and microphone (run under scripts/with-harness.sh)";
        ASSERT_TRUE(receiver.start()) << "the receiving window did not come up";
        XTestKeyboard::focus(receiver.windowId());
    }

    // Sets the native recogniser on the language whose model Debian ships.
    void useNativeEnglish()
    {
        app.setSetting(QStringLiteral("engine"), QStringLiteral("apple"));
        app.setSetting(QStringLiteral("localeIdentifier"), QStringLiteral("en-US"));
        // Our own sounds would be heard by the virtual microphone and reach the recogniser.
        app.setSetting(QStringLiteral("playSounds"), false);
    }

    QString goForward()
    {
        if (!QFileInfo::exists(goForwardRaw))
            return {};
        return Desktop::wavCopy(goForwardRaw, app.root(),
                                {QStringLiteral("-f"), QStringLiteral("s16le"), QStringLiteral("-ar"), QStringLiteral("16000"),
                                 QStringLiteral("-ac"), QStringLiteral("1")});
    }

    // Holds the dictation key, waits for the listening message and the red icon, plays the speech,
    // and releases.
    void holdAndSpeak(const QString& wav)
    {
        const int from = app.lineCount();
        ASSERT_TRUE(XTestKeyboard::press(rightAlt));
        ASSERT_TRUE(app.waitForLog(listening, 5s, from)) << app.log().join('\n').toStdString();
        EXPECT_TRUE(TestSupport::waitUntil([] { return trayIconTint() == Tint::red; }, 10s)) << "the icon is not red while listening";
        const bool played = TestSupport::playIntoMicrophone(wav);
        ASSERT_TRUE(XTestKeyboard::release(rightAlt));
        ASSERT_TRUE(played) << "paplay could not play " << wav.toStdString();
    }

    QJsonArray history() const
    {
        QFile file(app.dataFolder() + QStringLiteral("/history.json"));
        if (!file.open(QIODevice::ReadOnly))
            return {};
        return QJsonDocument::fromJson(file.readAll()).array();
    }

    // The receiver and the history stay untouched for a while.
    void expectNothingInserted()
    {
        TestSupport::spin(1500ms);
        EXPECT_EQ(receiver.text(), QString());
        EXPECT_TRUE(history().isEmpty());
    }

    ReceivingWindow receiver;
    AppRun app;
};

TEST_F(EndToEnd, NativeEngineTypesTheSpeechIntoTheFocusedWindowAndKeepsTheClipboard)
{
    useNativeEnglish();
    DesktopApps::ClipboardOwner previous({{QStringLiteral("text/plain"), QByteArray("conteúdo anterior")}});
    ASSERT_TRUE(previous.isReady());
    ASSERT_TRUE(app.start());
    const QString speech = goForward();
    if (speech.isEmpty())
        GTEST_SKIP() << "pocketsphinx-testdata is not installed";

    holdAndSpeak(speech);
    ASSERT_TRUE(receiver.waitForText(QStringLiteral("go forward ten meters"), 20s))
        << "received: " << receiver.text().toStdString() << "\n" << app.log().join('\n').toStdString();
    // The words showed on the HUD while the key was still held.
    EXPECT_FALSE(app.linesWith(QStringLiteral("voxaria.hud: Text")).isEmpty()) << app.log().join('\n').toStdString();

    ASSERT_TRUE(TestSupport::waitUntil([&] { return !history().isEmpty(); }, 3s));
    const QJsonArray entries = history();
    ASSERT_EQ(entries.size(), 1);
    EXPECT_EQ(entries.at(0).toObject().value(QStringLiteral("text")).toString(), QStringLiteral("go forward ten meters"));
    EXPECT_EQ(entries.at(0).toObject().value(QStringLiteral("appName")).toString().toLower(), QStringLiteral("receiver"));
    const auto clipboard = [] { return DesktopApps::clipboardData(QStringLiteral("text/plain")); };
    EXPECT_TRUE(TestSupport::waitUntil([&] { return clipboard() == "conteúdo anterior"; }, 5s))
        << "clipboard holds: " << clipboard().toStdString();
}

TEST_F(EndToEnd, WhisperEnginePastesItsTranscriptOfTheWholeRecording)
{
    app.useFakeWhisper(QStringLiteral("text=o texto que o whisper ouviu\nhold=1\n"));
    ASSERT_TRUE(app.start());
    const QString clip = Desktop::wavCopy(TestSupport::testDataPath(QStringLiteral("speech/fleurs-pt-002.ogg")), app.root());
    ASSERT_FALSE(clip.isEmpty());

    const int from = app.lineCount();
    QElapsedTimer held;
    held.start();
    holdAndSpeak(clip);
    const double heldSeconds = held.elapsed() / 1000.0;
    ASSERT_TRUE(app.waitForLog(transcribing, 10s, from));
    EXPECT_TRUE(TestSupport::waitUntil([] { return trayIconTint() == Tint::orange; }, 10s)) << "the icon is not orange while transcribing";
    app.releaseWhisper();
    ASSERT_TRUE(receiver.waitForText(QStringLiteral("o texto que o whisper ouviu"), 20s))
        << app.log().join('\n').toStdString();
    EXPECT_TRUE(TestSupport::waitUntil([] { return trayIconTint() == Tint::normal; }, 10s)) << "the icon stayed coloured";

    // All that was played, and no more than the key was held.
    const TestSupport::WavInfo recorded = TestSupport::readWav(app.whisperInputCopy());
    EXPECT_TRUE(recorded.valid);
    EXPECT_GE(recorded.seconds(), TestSupport::audioDuration(clip) * 0.9);
    EXPECT_LE(recorded.seconds(), heldSeconds + 0.2);
    EXPECT_EQ(history().size(), 1);
    EXPECT_TRUE(app.linesWith(QStringLiteral("cannot be played")).isEmpty()) << app.log().join(QLatin1Char('\n')).toStdString();
    EXPECT_TRUE(TestSupport::dictationFiles(app.temporaryFolder()).isEmpty()) << "the dictation's files stayed behind";
}

TEST_F(EndToEnd, AShortPressInsertsNothingAndHidesTheHud)
{
    useNativeEnglish();
    ASSERT_TRUE(app.start());
    // Pressed and released at once: a short press however slowly the machine runs.
    const int from = app.lineCount();
    ASSERT_TRUE(XTestKeyboard::tap(rightAlt, 0ms));
    ASSERT_TRUE(app.waitForLog(listening, 10s, from)) << app.log().join('\n').toStdString();
    ASSERT_TRUE(app.waitForLog(QStringLiteral("short press"), 10s, from)) << app.log().join('\n').toStdString();
    expectNothingInserted();
    const QStringList hud = app.linesWith(QStringLiteral("voxaria.hud:"));
    ASSERT_FALSE(hud.isEmpty());
    EXPECT_TRUE(hud.last().contains(QStringLiteral("Hidden"))) << hud.join('\n').toStdString();
}

TEST_F(EndToEnd, AMissingLanguageIsExplainedAndTheNextPressWorksOnceSwitched)
{
    useNativeEnglish();
    app.setSetting(QStringLiteral("localeIdentifier"), QStringLiteral("pt-BR"));
    ASSERT_TRUE(app.start());
    const QString speech = goForward();
    if (speech.isEmpty())
        GTEST_SKIP() << "pocketsphinx-testdata is not installed";

    const int from = app.lineCount();
    ASSERT_TRUE(XTestKeyboard::tap(rightAlt, 500ms));
    const QString warning = QStringLiteral("⚠️ Reconhecimento de fala indisponível para o idioma pt-BR. "
                                           "Verifique se o modelo do PocketSphinx para esse idioma está instalado.");
    EXPECT_TRUE(app.waitForLog(warning, 5s, from)) << app.log().join('\n').toStdString();
    expectNothingInserted();

    app.setSetting(QStringLiteral("localeIdentifier"), QStringLiteral("en-US"));
    holdAndSpeak(speech);
    EXPECT_TRUE(receiver.waitForText(QStringLiteral("go forward ten meters"), 20s))
        << app.log().join('\n').toStdString();
}

TEST_F(EndToEnd, EndedFromOutsideDuringADictationItLeavesNoRecordingBehind)
{
    app.useFakeWhisper({});
    ASSERT_TRUE(app.start());
    ASSERT_TRUE(XTestKeyboard::press(rightAlt));
    ASSERT_TRUE(app.waitForLog(listening, 5s));
    EXPECT_FALSE(TestSupport::dictationFiles(app.temporaryFolder()).isEmpty());
    app.process().terminate();
    ASSERT_TRUE(app.waitForExit(5s));
    ASSERT_TRUE(XTestKeyboard::release(rightAlt));
    EXPECT_EQ(app.process().exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(app.process().exitCode(), 0);
    EXPECT_TRUE(TestSupport::dictationFiles(app.temporaryFolder()).isEmpty());
}

TEST_F(EndToEnd, ASecondCopyLeavesSilentlyAndTheFirstKeepsItsOnlyTrayIcon)
{
    ASSERT_TRUE(app.start());
    const auto trayIcons = [] { return Desktop::trayIconWindows(QStringLiteral("Voxaria")).size(); };
    ASSERT_TRUE(TestSupport::waitUntil([&] { return trayIcons() == 1; }, 5s));

    QProcess second;
    second.setProcessEnvironment(app.process().processEnvironment());
    second.start(app.process().program(), {});
    ASSERT_TRUE(second.waitForFinished(10000)) << "the second copy did not leave";
    EXPECT_EQ(second.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(second.exitCode(), 0);
    TestSupport::spin(500ms);
    EXPECT_EQ(trayIcons(), 1);
    EXPECT_EQ(app.process().state(), QProcess::Running);
}

}
