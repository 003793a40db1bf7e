#include "AppRun.h"
#include "DesktopApps.h"
#include "TestSupport.h"
#include "Dictation/TextInserter.h"
#include "XTestKeyboard.h"

#include "Platform/Fakes/FakeKeyPoster.h"
#include "Platform/Fakes/FakePasteboard.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QTimer>

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
    const FakeItems before = {{{FakePasteboard::plainTextType, QByteArray("antes")}}};

    void insert(const QString& text, TextInserter::Delays delays = {10ms, 300ms})
    {
        TextInserter::insert(text, {pasteboard, keyPoster, delays});
    }
};

TEST_F(TextInserterTest, PastesWithOneCommandVWhileTheTextIsOnTheClipboardThenPutsBackWhatGaveData)
{
    const FakeItems imageAndBytes = {
        {{QStringLiteral("image/png"), pngImage()}, {QStringLiteral("text/plain"), QByteArray("legenda")}},
        {{QStringLiteral("application/x-custom"), QByteArray("\x00\x01\x02", 3)}},
    };
    const struct {
        const char* name;
        FakeItems before;
        FakeItems after;
        bool keyDownMade = true;
        bool keyUpMade = true;
        QString text = dictation;
    } cases[] = {
        {"two items with an image and binary data", imageAndBytes, imageAndBytes},
        {"an empty clipboard stays empty", {}, {}},
        {"types that give no data are dropped, their siblings come back",
            {{{QStringLiteral("text/html"), std::nullopt}, before[0][0], {QStringLiteral("application/x-lazy"), std::nullopt}}},
            before},
        {"no key-down event: nothing is pasted, the clipboard still comes back", before, before, false, true},
        {"no key-up event: nothing is pasted, the clipboard still comes back", before, before, true, false},
        {"an empty text touches neither clipboard nor keyboard", before, before, false, false, QString()},
    };
    std::vector<std::optional<QString>> clipboardAtPost;
    keyPoster->onPost = [&](const KeyPoster::KeyEvent&) { clipboardAtPost.push_back(pasteboard->string()); };
    const std::vector<KeyPoster::KeyEvent> commandV = {
        {KeyPoster::virtualKeyV, true, KeyPoster::commandFlag}, {KeyPoster::virtualKeyV, false, KeyPoster::commandFlag}};

    for (const auto& [name, before, after, keyDownMade, keyUpMade, text] : cases) {
        SCOPED_TRACE(name);
        pasteboard->items = before;
        pasteboard->writeCount = 0;
        keyPoster->canMakeKeyDown = keyDownMade;
        keyPoster->canMakeKeyUp = keyUpMade;
        keyPoster->posted.clear();
        clipboardAtPost.clear();
        insert(text);
        TestSupport::waitUntil([&] { return text.isEmpty() || pasteboard->writeCount >= 3; }, 2s);
        // Long enough for a second paste to show up, were one scheduled.
        TestSupport::spin(100ms);
        const bool pasted = keyDownMade && keyUpMade;
        EXPECT_EQ(keyPoster->posted, pasted ? commandV : std::vector<KeyPoster::KeyEvent>());
        EXPECT_EQ(clipboardAtPost, (std::vector<std::optional<QString>>(pasted ? 2 : 0, dictation)));
        EXPECT_EQ(pasteboard->items, after);
        EXPECT_EQ(pasteboard->writeCount == 0, text.isEmpty());
    }
}

TEST_F(TextInserterTest, PastesNoSoonerThanFiftyMillisecondsAndRestoresNoSoonerThanSixHundredAfter)
{
    pasteboard->items = before;
    QElapsedTimer clock;
    qint64 postedAt = -1;
    keyPoster->onPost = [&](const KeyPoster::KeyEvent&) { postedAt = postedAt < 0 ? clock.elapsed() : postedAt; };
    clock.start();
    insert(dictation, {});
    ASSERT_TRUE(TestSupport::waitUntil([&] { return pasteboard->items == before; }, 5s));
    EXPECT_GE(postedAt, 50);
    EXPECT_GE(clock.elapsed() - postedAt, 600);
}

TEST_F(TextInserterTest, WhatHappensBeforeTheRestorationDecidesWhatTheClipboardEndsWith)
{
    const FakeItems newer = {{{FakePasteboard::plainTextType, QByteArray("copiado depois")}}};
    const struct {
        const char* name;
        std::function<void()> meanwhile;
        FakeItems after;
        bool restoredAtOnce = false;
    } cases[] = {
        {"another program copies: its newer copy stays", [&] { pasteboard->copyElsewhere(newer); }, newer},
        {"a second dictation: the clipboard from before the first comes back",
            [&] { insert(QStringLiteral("segundo")); }, before},
        {"the program quits: the restoration runs at once",
            [] { QMetaObject::invokeMethod(QCoreApplication::instance(), "aboutToQuit"); }, before, true},
    };
    for (const auto& [name, meanwhile, after, restoredAtOnce] : cases) {
        SCOPED_TRACE(name);
        pasteboard->items = before;
        insert(dictation);
        TestSupport::spin(150ms);
        meanwhile();
        if (restoredAtOnce)
            EXPECT_EQ(pasteboard->items, after);
        TestSupport::spin(700ms);
        EXPECT_EQ(pasteboard->items, after);
    }
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

        // A timer due now must wait for the event loop: the clipboard writes run none of it.
        bool timerRan = false;
        QTimer::singleShot(0, [&] { timerRan = true; });
        TextInserter::insert(dictation);
        EXPECT_FALSE(timerRan) << "the event loop ran inside insert()";
        EXPECT_TRUE(receiver.waitForText(expected, 5s)) << "received: " << receiver.text().toStdString();
        waitPastRestoration();
        EXPECT_EQ(receiver.text(), expected) << "pasted more than once";
        EXPECT_EQ(DesktopApps::clipboardTargets(), targetsBefore);
        for (const auto& [type, bytes] : formats)
            EXPECT_EQ(DesktopApps::clipboardData(type), bytes) << type.toStdString();
    }
}

TEST_F(TextInserterOnX11Test, TakesTheClipboardFromProgramsThatClaimedItJustNowAndLeavesItToANewerCopy)
{
    for (int round = 1; round <= 3; ++round) {
        SCOPED_TRACE(round);
        // This process lets go of the clipboard (as when a dictation restored an empty one), then
        // xclip claims it at the server's current time, later than any event this process saw:
        // no event tells us the time moved on.
        DesktopApps::clearClipboard();
        const QByteArray copied = "copiado agora " + QByteArray::number(round);
        ASSERT_TRUE(DesktopApps::copyWithXclip(copied));
        // Seen through this process's own clipboard, which reads without learning the server's time.
        ASSERT_TRUE(TestSupport::waitUntil([] { return Pasteboard::general()->itemCount() > 0; }, 2s));

        TextInserter::insert(dictation);
        EXPECT_EQ(DesktopApps::clipboardData(QStringLiteral("UTF8_STRING")), dictation.toUtf8())
            << "the dictation did not reach the clipboard";
        // In the last round the user copies something else before the restoration: it stays.
        const QByteArray newer = "copiado durante o ditado";
        if (round == 3)
            ASSERT_TRUE(DesktopApps::copyWithXclip(newer));
        waitPastRestoration();
        EXPECT_EQ(DesktopApps::clipboardData(QStringLiteral("text/html")), round == 3 ? newer : copied);
    }
}

TEST_F(TextInserterOnX11Test, AHeldModifierNeitherSpoilsThePasteNorComesUpForIt)
{
    ReceivingWindow receiver;
    ASSERT_TRUE(receiver.start()) << "the receiving window did not come up";
    // The dictation key (right Alt, AltGr on ABNT2) pressed again while transcribing, and a Shift.
    for (const int keycode : {108, 50}) {
        SCOPED_TRACE(keycode);
        XTestKeyboard::focus(receiver.windowId());
        const QString expected = receiver.text() + dictation;
        XTestKeyboard::press(keycode);
        TextInserter::insert(dictation);
        EXPECT_TRUE(receiver.waitForText(expected, 5s)) << "received: " << receiver.text().toStdString();
        EXPECT_TRUE(DesktopApps::isKeyDown(keycode)) << "the held key came up";
        XTestKeyboard::release(keycode);
        waitPastRestoration();
    }
}

TEST_F(TextInserterOnX11Test, TerminalGetsControlShiftVSoTheTextArrivesInsteadOfCaretV)
{
    DesktopApps::Terminal terminal;
    ASSERT_NE(terminal.windowId(), 0u) << "xterm did not come up";
    XTestKeyboard::focus(terminal.windowId());
    TextInserter::insert(dictation);
    EXPECT_TRUE(TestSupport::waitUntil([&] { return !terminal.received().isEmpty(); }, 5s));
    TestSupport::spin(200ms);
    EXPECT_EQ(terminal.received(), dictation.toUtf8());
}

}
