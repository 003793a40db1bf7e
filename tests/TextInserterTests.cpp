#include "DesktopApps.h"
#include "TestSupport.h"
#include "TextInserter.h"

#include "Platform/Fakes/FakeKeyPoster.h"
#include "Platform/Fakes/FakePasteboard.h"

#include <QBuffer>
#include <QElapsedTimer>
#include <QImage>
#include <QPainter>
#include <QProcess>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using Entry = FakePasteboard::Entry;
using KeyEvent = KeyPoster::KeyEvent;

namespace {

const QString dictation = QStringLiteral("Olá, ação — ñ 🎙️");

QByteArray pngImage()
{
    QImage image(64, 48, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.fillRect(8, 8, 40, 24, QColor(200, 40, 90));
    painter.end();
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return png;
}

const std::vector<KeyEvent> commandV = {
    {KeyPoster::virtualKeyV, true, KeyPoster::commandFlag},
    {KeyPoster::virtualKeyV, false, KeyPoster::commandFlag},
};

class TextInserterTest : public ::testing::Test {
protected:
    std::shared_ptr<FakePasteboard> pasteboard = std::make_shared<FakePasteboard>();
    std::shared_ptr<FakeKeyPoster> keyPoster = std::make_shared<FakeKeyPoster>();

    // Short delays keep the tests quick; their order and effect are what matter here.
    TextInserter::Target quickTarget() const { return {pasteboard, keyPoster, {10ms, 30ms}}; }
    void waitForRestoration() { TestSupport::waitUntil([&] { return pasteboard->writeCount >= 3; }, 2s); }
};

TEST_F(TextInserterTest, EmptyTextTouchesNeitherClipboardNorKeyboard)
{
    pasteboard->items = {{{FakePasteboard::plainTextType, QByteArray("kept")}}};
    TextInserter::insert(QString(), quickTarget());
    TestSupport::spin(100ms);
    EXPECT_EQ(pasteboard->writeCount, 0);
    EXPECT_EQ(pasteboard->string(), QStringLiteral("kept"));
    EXPECT_TRUE(keyPoster->posted.empty());
}

TEST_F(TextInserterTest, PastesWithOneCommandVWhileTheTextIsOnTheClipboardThenPutsEveryItemBack)
{
    const std::vector<FakePasteboard::FakeItem> before = {
        {{QStringLiteral("image/png"), pngImage()}, {QStringLiteral("text/plain"), QByteArray("legenda")}},
        {{QStringLiteral("application/x-custom"), QByteArray("\x00\x01\x02", 3)}},
    };
    pasteboard->items = before;
    std::vector<std::optional<QString>> clipboardAtPost;
    keyPoster->onPost = [&](const KeyEvent&) { clipboardAtPost.push_back(pasteboard->string()); };

    TextInserter::insert(dictation, quickTarget());
    // The text is on the clipboard at once, the keys come later.
    EXPECT_EQ(pasteboard->string(), dictation);
    EXPECT_TRUE(keyPoster->posted.empty());

    waitForRestoration();
    EXPECT_EQ(keyPoster->posted, commandV);
    EXPECT_EQ(clipboardAtPost, (std::vector<std::optional<QString>>{dictation, dictation}));
    EXPECT_EQ(pasteboard->items, before);
    TestSupport::spin(100ms);
    EXPECT_EQ(keyPoster->posted.size(), 2u) << "a second paste was posted";
}

TEST_F(TextInserterTest, EmptyClipboardIsLeftEmptyNotHoldingTheDictation)
{
    TextInserter::insert(dictation, quickTarget());
    TestSupport::waitUntil([&] { return pasteboard->items.empty() && keyPoster->posted.size() == 2; }, 2s);
    EXPECT_TRUE(pasteboard->items.empty());
    EXPECT_EQ(keyPoster->posted, commandV);
}

TEST_F(TextInserterTest, TypeThatGivesNoDataIsDroppedWhileTheItsSiblingsComeBack)
{
    pasteboard->items = {{{QStringLiteral("text/html"), std::nullopt}, {QStringLiteral("text/plain"), QByteArray("a")},
        {QStringLiteral("application/x-lazy"), std::nullopt}}};
    TextInserter::insert(dictation, quickTarget());
    waitForRestoration();
    const std::vector<FakePasteboard::FakeItem> expected = {{{QStringLiteral("text/plain"), QByteArray("a")}}};
    EXPECT_EQ(pasteboard->items, expected);
}

TEST_F(TextInserterTest, WhenTheKeysCannotBeMadeNothingIsPostedAndTheClipboardIsStillRestored)
{
    for (const bool downFails : {true, false}) {
        SCOPED_TRACE(downFails ? "key-down fails" : "key-up fails");
        keyPoster->canMakeKeyDown = !downFails;
        keyPoster->canMakeKeyUp = downFails;
        pasteboard->items = {{{FakePasteboard::plainTextType, QByteArray("antes")}}};
        pasteboard->writeCount = 0;
        TextInserter::insert(dictation, quickTarget());
        waitForRestoration();
        EXPECT_TRUE(keyPoster->posted.empty());
        EXPECT_EQ(pasteboard->string(), QStringLiteral("antes"));
    }
}

TEST_F(TextInserterTest, RealDelaysPasteAfterFiftyMillisecondsAndRestoreAfterSixHundredMore)
{
    pasteboard->items = {{{FakePasteboard::plainTextType, QByteArray("antes")}}};
    QElapsedTimer clock;
    qint64 postedAt = -1;
    keyPoster->onPost = [&](const KeyEvent&) {
        if (postedAt < 0)
            postedAt = clock.elapsed();
    };
    clock.start();
    TextInserter::insert(dictation, {pasteboard, keyPoster, {}});
    ASSERT_TRUE(TestSupport::waitUntil([&] { return pasteboard->string() == QStringLiteral("antes"); }, 2s));
    const qint64 restoredAt = clock.elapsed();
    // Upper bounds leave room for a busy machine; the lower ones are the delays themselves.
    EXPECT_GE(postedAt, 45);
    EXPECT_LE(postedAt, 150);
    EXPECT_GE(restoredAt, 640);
    EXPECT_LE(restoredAt, 1000);
}

// Against the real X server: a real receiving window, a foreign clipboard owner, xterm.
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

TEST_F(TextInserterOnX11Test, TextArrivesIntactAndTheClipboardOffersExactlyWhatItDidBefore)
{
    DesktopApps::Receiver receiver;
    ASSERT_TRUE(receiver.isReady());
    ASSERT_TRUE(receiver.focus());
    const std::vector<std::pair<QString, QByteArray>> formats = {
        {QStringLiteral("text/plain"), QByteArray("texto de antes")},
        {QStringLiteral("text/html"), QByteArray("<b>texto</b> de antes")},
        {QStringLiteral("image/png"), pngImage()},
        {QStringLiteral("application/x-voxaria-test"), QByteArray("\x01\x02\xff", 3)},
    };
    DesktopApps::ClipboardOwner owner(formats);
    ASSERT_TRUE(owner.isReady());
    const QStringList targetsBefore = DesktopApps::clipboardTargets();
    ASSERT_TRUE(targetsBefore.contains(QStringLiteral("image/png"))) << targetsBefore.join(u' ').toStdString();

    TextInserter::insert(dictation);
    EXPECT_TRUE(TestSupport::waitUntil([&] { return receiver.text() == dictation; }, 2s))
        << "received: " << receiver.text().toStdString();
    waitPastRestoration();

    EXPECT_EQ(receiver.text(), dictation) << "pasted more than once";
    EXPECT_EQ(DesktopApps::clipboardTargets(), targetsBefore);
    for (const auto& [type, bytes] : formats)
        EXPECT_EQ(DesktopApps::clipboardData(type), bytes) << type.toStdString();
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
        xclip.start(QStringLiteral("xclip"), {QStringLiteral("-selection"), QStringLiteral("clipboard"),
                                                 QStringLiteral("-t"), QStringLiteral("text/html"), QStringLiteral("-i")});
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

TEST_F(TextInserterOnX11Test, EmptyClipboardIsEmptyAgainAfterThePaste)
{
    DesktopApps::Receiver receiver;
    ASSERT_TRUE(receiver.isReady() && receiver.focus());
    DesktopApps::clearClipboard();
    ASSERT_TRUE(DesktopApps::clipboardTargets().isEmpty());

    TextInserter::insert(QStringLiteral("ditado"));
    EXPECT_TRUE(TestSupport::waitUntil([&] { return receiver.text() == QStringLiteral("ditado"); }, 2s));
    waitPastRestoration();
    EXPECT_TRUE(DesktopApps::clipboardTargets().isEmpty()) << DesktopApps::clipboardTargets().join(u' ').toStdString();
}

TEST_F(TextInserterOnX11Test, TerminalGetsControlShiftVSoTheTextArrivesInsteadOfCaretV)
{
    DesktopApps::Terminal terminal;
    ASSERT_TRUE(terminal.isReady()) << "xterm did not start";
    ASSERT_TRUE(terminal.focus());
    TextInserter::insert(dictation);
    EXPECT_TRUE(TestSupport::waitUntil([&] { return !terminal.received().isEmpty(); }, 2s));
    TestSupport::spin(200ms);
    EXPECT_EQ(terminal.received(), dictation.toUtf8());
}

}
