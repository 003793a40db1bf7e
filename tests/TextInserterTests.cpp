#include "AppRun.h"
#include "DesktopApps.h"
#include "TestSupport.h"
#include "Dictation/TextInserter.h"
#include "XTestKeyboard.h"

#include "Platform/Fakes/FakeKeyPoster.h"
#include "Platform/Fakes/FakePasteboard.h"
#include "Platform/Linux/XTestKeyPoster.h"

#include <QBuffer>
#include <QElapsedTimer>
#include <QImage>
#include <QProcess>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using FakeItems = std::vector<FakePasteboard::FakeItem>;

namespace {

const QString dictation = QStringLiteral("Olá, ação — ñ 🎙️");

QByteArray pngImage()
{
    QImage image(64, 48, QImage::Format_ARGB32);
    image.fill(QColor(200, 40, 90, 128));
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return png;
}

class TextInserterTest : public ::testing::Test {
protected:
    std::shared_ptr<FakePasteboard> pasteboard = std::make_shared<FakePasteboard>();
    std::shared_ptr<FakeKeyPoster> keyPoster = std::make_shared<FakeKeyPoster>();

    // Short delays keep the tests quick; their order and effect are what matter here.
    void insertAndWaitPastRestoration(const QString& text)
    {
        pasteboard->writeCount = 0;
        keyPoster->posted.clear();
        TextInserter::insert(text, {pasteboard, keyPoster, {10ms, 30ms}});
        TestSupport::waitUntil([&] { return pasteboard->writeCount >= 3; }, 2s);
        // Long enough for a second paste to show up, were one scheduled.
        TestSupport::spin(60ms);
    }
};

TEST_F(TextInserterTest, EmptyTextTouchesNeitherClipboardNorKeyboard)
{
    TextInserter::insert(QString(), {pasteboard, keyPoster, {10ms, 30ms}});
    TestSupport::spin(100ms);
    EXPECT_EQ(pasteboard->writeCount, 0);
    EXPECT_TRUE(keyPoster->posted.empty());
}

TEST_F(TextInserterTest, PastesWithOneCommandVWhileTheTextIsOnTheClipboardThenPutsBackWhatGaveData)
{
    const FakeItems imageAndBytes = {
        {{QStringLiteral("image/png"), pngImage()}, {QStringLiteral("text/plain"), QByteArray("legenda")}},
        {{QStringLiteral("application/x-custom"), QByteArray("\x00\x01\x02", 3)}},
    };
    const FakeItems text = {{{QStringLiteral("text/plain"), QByteArray("antes")}}};
    const struct {
        const char* name;
        FakeItems before;
        FakeItems after;
        bool keyDownMade = true;
        bool keyUpMade = true;
    } cases[] = {
        {"two items with an image and binary data", imageAndBytes, imageAndBytes},
        {"an empty clipboard stays empty", {}, {}},
        {"types that give no data are dropped, their siblings come back",
            {{{QStringLiteral("text/html"), std::nullopt}, text[0][0], {QStringLiteral("application/x-lazy"), std::nullopt}}},
            text},
        {"no key-down event: nothing is pasted, the clipboard still comes back", text, text, false, true},
        {"no key-up event: nothing is pasted, the clipboard still comes back", text, text, true, false},
    };
    std::vector<std::optional<QString>> clipboardAtPost;
    keyPoster->onPost = [&](const KeyPoster::KeyEvent&) { clipboardAtPost.push_back(pasteboard->string()); };
    const std::vector<KeyPoster::KeyEvent> commandV = {
        {KeyPoster::virtualKeyV, true, KeyPoster::commandFlag}, {KeyPoster::virtualKeyV, false, KeyPoster::commandFlag}};

    for (const auto& [name, before, after, keyDownMade, keyUpMade] : cases) {
        SCOPED_TRACE(name);
        pasteboard->items = before;
        keyPoster->canMakeKeyDown = keyDownMade;
        keyPoster->canMakeKeyUp = keyUpMade;
        clipboardAtPost.clear();
        insertAndWaitPastRestoration(dictation);
        const bool pasted = keyDownMade && keyUpMade;
        EXPECT_EQ(keyPoster->posted, pasted ? commandV : std::vector<KeyPoster::KeyEvent>());
        EXPECT_EQ(clipboardAtPost, (std::vector<std::optional<QString>>(pasted ? 2 : 0, dictation)));
        EXPECT_EQ(pasteboard->items, after);
    }
}

TEST_F(TextInserterTest, RealDelaysPasteAfterFiftyMillisecondsAndRestoreAfterSixHundredMore)
{
    pasteboard->items = {{{FakePasteboard::plainTextType, QByteArray("antes")}}};
    QElapsedTimer clock;
    qint64 postedAt = -1;
    keyPoster->onPost = [&](const KeyPoster::KeyEvent&) {
        if (postedAt < 0)
            postedAt = clock.elapsed();
    };
    clock.start();
    TextInserter::insert(dictation, {pasteboard, keyPoster, {}});
    ASSERT_TRUE(TestSupport::waitUntil([&] { return pasteboard->string() == QStringLiteral("antes"); }, 2s));
    const qint64 restoredAt = clock.elapsed();
    // Upper bounds leave room for a busy machine; the lower ones are the delays themselves.
    EXPECT_TRUE(postedAt >= 45 && postedAt <= 150) << "pasted after " << postedAt << " ms";
    EXPECT_TRUE(restoredAt >= 640 && restoredAt <= 1000) << "restored after " << restoredAt << " ms";
}

// Against the real X server: a real receiving window, foreign clipboard owners, xterm.
class TextInserterOnX11Test : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!TestSupport::hasX11())
            GTEST_SKIP() << "needs the X server of scripts/with-harness.sh";
    }

    // Waits out the paste and the restoration of the system's real delays.
    static void waitPastRestoration() { TestSupport::spin(900ms); }
};

TEST_F(TextInserterOnX11Test, TextArrivesOnceAndTheClipboardOffersExactlyWhatItDidBeforeEvenNothing)
{
    ReceivingWindow receiver;
    ASSERT_TRUE(receiver.start()) << "the receiving window did not come up";
    using Formats = std::vector<std::pair<QString, QByteArray>>;
    const Formats fourFormats = {
        {QStringLiteral("text/plain"), QByteArray("texto de antes")},
        {QStringLiteral("text/html"), QByteArray("<b>texto</b> de antes")},
        {QStringLiteral("image/png"), pngImage()},
        {QStringLiteral("application/x-voxaria-test"), QByteArray("\x01\x02\xff", 3)},
    };
    for (const Formats& formats : {Formats(), fourFormats}) {
        SCOPED_TRACE(formats.empty() ? "empty clipboard" : "clipboard of another program");
        DesktopApps::clearClipboard();
        std::optional<DesktopApps::ClipboardOwner> owner;
        if (!formats.empty())
            ASSERT_TRUE(owner.emplace(formats).isReady());
        const QStringList targetsBefore = DesktopApps::clipboardTargets();
        ASSERT_EQ(targetsBefore.isEmpty(), formats.empty()) << targetsBefore.join(u' ').toStdString();
        XTestKeyboard::focus(receiver.windowId());
        const QString expected = receiver.text() + dictation;

        TextInserter::insert(dictation);
        EXPECT_TRUE(TestSupport::waitUntil([&] { return receiver.text() == expected; }, 2s))
            << "received: " << receiver.text().toStdString();
        waitPastRestoration();
        EXPECT_EQ(receiver.text(), expected) << "pasted more than once";
        EXPECT_EQ(DesktopApps::clipboardTargets(), targetsBefore);
        for (const auto& [type, bytes] : formats)
            EXPECT_EQ(DesktopApps::clipboardData(type), bytes) << type.toStdString();
    }
}

TEST_F(TextInserterOnX11Test, TakesTheClipboardFromProgramsThatClaimedItJustNowTimeAfterTime)
{
    for (int round = 1; round <= 3; ++round) {
        SCOPED_TRACE(round);
        // This process lets go of the clipboard (as when a dictation restored an empty one), then
        // xclip claims it at the server's current time, later than any event this process saw:
        // no event tells us the time moved on.
        DesktopApps::clearClipboard();
        const QByteArray copied = "copiado agora " + QByteArray::number(round);
        QProcess xclip;
        xclip.start(QStringLiteral("xclip"),
            {QStringLiteral("-selection"), QStringLiteral("clipboard"), QStringLiteral("-t"), QStringLiteral("text/html")});
        xclip.write(copied);
        xclip.closeWriteChannel();
        ASSERT_TRUE(xclip.waitForFinished());
        // Seen through this process's own clipboard, which reads without learning the server's time.
        ASSERT_TRUE(TestSupport::waitUntil([] { return Pasteboard::general()->itemCount() > 0; }, 2s));

        TextInserter::insert(dictation);
        EXPECT_EQ(DesktopApps::clipboardData(QStringLiteral("UTF8_STRING")), dictation.toUtf8())
            << "the dictation did not reach the clipboard";
        waitPastRestoration();
        EXPECT_EQ(DesktopApps::clipboardData(QStringLiteral("text/html")), copied);
    }
}

TEST_F(TextInserterOnX11Test, TerminalGetsControlShiftVSoTheTextArrivesInsteadOfCaretV)
{
    // Other terminals are known by their window class too; an editor is no terminal.
    EXPECT_TRUE(XTestKeyPoster::isTerminal({QStringLiteral("gnome-terminal-server"), QStringLiteral("Gnome-terminal")}));
    EXPECT_TRUE(XTestKeyPoster::isTerminal({QStringLiteral("Alacritty"), QStringLiteral("Alacritty")}));
    EXPECT_FALSE(XTestKeyPoster::isTerminal({QStringLiteral("gedit"), QStringLiteral("Gedit")}));

    DesktopApps::Terminal terminal;
    ASSERT_NE(terminal.windowId(), 0u) << "xterm did not come up";
    XTestKeyboard::focus(terminal.windowId());
    TextInserter::insert(dictation);
    EXPECT_TRUE(TestSupport::waitUntil([&] { return !terminal.received().isEmpty(); }, 2s));
    TestSupport::spin(200ms);
    EXPECT_EQ(terminal.received(), dictation.toUtf8());
}

}
