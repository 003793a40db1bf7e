#include "AppRun.h"
#include "DesktopApps.h"
#include "Dictation/TextInserter.h"
#include "TestSupport.h"
#include "XTestKeyboard.h"

#include "Platform/Fakes/FakeKeyPoster.h"
#include "Platform/Fakes/FakePasteboard.h"
#include "Platform/Linux/Desktop/GnomeShellVersion.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/X11/X11ClipboardPasteboard.h"
#include "Platform/Linux/X11/X11FrontApplication.h"
#include "Platform/Linux/X11/XInputKeyMonitor.h"
#include "Platform/Linux/X11/XTestKeyPoster.h"

#include <QClipboard>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryFile>
#include <QTimer>

#include <csignal>

#include <gtest/gtest.h>

// Xlib's macros clash with the headers above, so it comes last.
#include "Platform/Linux/X11/X11Display.h"

using namespace std::chrono_literals;

namespace {

const QString dictation = "Olá, ação — ñ 🎙️";

// A 2×2 PNG image with a translucent pixel row.
const QByteArray pngImage
    = QByteArray::fromBase64("iVBORw0KGgoAAAANSUhEUgAAAAIAAAACCAYAAABytg0kAAAAFUlEQVR4nGM4oRHVAMIMAgoG/0EYADqABlPR2n9fAAAAAElFTkSuQmCC");

// X11, wlroots' virtual keyboard, KWin's fake input and the XWayland of GNOME 45 and later get a
// synthetic paste to the focused window; elsewhere (older or unknown GNOME included) the text is
// only copied, and the paste is never probed.
TEST(TextInserterTest, ThePasteIsUsedOnlyWhereItReachesTheFocusedWindow)
{
    using Kind = SessionInfo::Kind;
    using enum SessionInfo::Compositor;
    using enum SessionPlatform::PasteRoute;
    const auto route = [](SessionInfo session, bool canPaste, std::optional<int> gnome = std::nullopt) {
        return LinuxPlatform::pasteRouteFor(session, gnome, [=] { return canPaste; });
    };
    EXPECT_EQ(route({Kind::x11, none, true}, false), x11);
    EXPECT_EQ(route({Kind::wayland, gnome, true}, true, 45), xwayland);
    EXPECT_EQ(route({Kind::wayland, gnome, true}, true, 48), xwayland);
    EXPECT_EQ(route({Kind::wayland, gnome, true}, false, 46), copyOnly);
    EXPECT_EQ(route({Kind::wayland, gnome, true}, true, 44), copyOnly);
    EXPECT_EQ(route({Kind::wayland, gnome, true}, true, 3), copyOnly);
    EXPECT_EQ(route({Kind::wayland, gnome, true}, true), copyOnly);
    EXPECT_EQ(route({Kind::wayland, gnome, false}, true, 46), copyOnly);
    EXPECT_EQ(route({Kind::wayland, kde, true}, true), compositor);
    EXPECT_EQ(route({Kind::wayland, kde, false}, false), copyOnly);
    EXPECT_EQ(route({Kind::wayland, wlroots, false}, true), compositor);
    EXPECT_EQ(route({Kind::wayland, wlroots, false}, false), copyOnly);
    EXPECT_EQ(route({Kind::wayland, other, false}, true), copyOnly);
    EXPECT_EQ(GnomeShellVersion::majorOf("46.2"), 46);
    EXPECT_EQ(GnomeShellVersion::majorOf("3.38.4"), 3);
    EXPECT_EQ(GnomeShellVersion::majorOf("45.rc"), 45);
    EXPECT_EQ(GnomeShellVersion::majorOf(""), std::nullopt);
    EXPECT_EQ(GnomeShellVersion::majorOf("abc"), std::nullopt);
}

TEST(TextInserterTest, PastesOnceAfterFiftyMillisecondsThenTheClipboardEndsWithWhatTheUserLastHad)
{
    auto pasteboard = std::make_shared<FakePasteboard>();
    auto keyPoster = std::make_shared<FakeKeyPoster>();
    const auto insert = [&](const QString& text) { TextInserter::insert(text, {pasteboard, keyPoster, {}}); };
    const std::vector<FakePasteboard::FakeItem> before = {{{FakePasteboard::plainTextType, QByteArray("antes")}}};
    const std::vector<KeyPoster::KeyEvent> commandV
        = {{KeyPoster::virtualKeyV, true, KeyPoster::commandFlag}, {KeyPoster::virtualKeyV, false, KeyPoster::commandFlag}};
    const struct {
        const char* name;
        std::vector<FakePasteboard::FakeItem> before;
        std::vector<KeyPoster::KeyEvent> posted;
        std::function<void()> meanwhile = {}; // 0.3 s after the call: after the paste, before the restoration
    } cases[] = {
        {"types that give no data are dropped, their siblings come back",
            {{{"text/html", std::nullopt}, before[0][0], {"application/x-lazy", std::nullopt}}}, commandV},
        {"a second dictation: the clipboard from before the first comes back", before, {commandV[0], commandV[1], commandV[0], commandV[1]},
            [&] { insert("segundo"); }},
        {"the program quits: the restoration runs at once", before, commandV,
            [&] {
                QMetaObject::invokeMethod(QCoreApplication::instance(), "aboutToQuit");
                ASSERT_EQ(pasteboard->items, before);
            }},
    };
    QElapsedTimer clock;
    qint64 postedAt = -1;
    keyPoster->onPost = [&](const KeyPoster::KeyEvent&) { postedAt = keyPoster->posted.size() == 1 ? clock.elapsed() : postedAt; };

    for (const auto& [name, itemsBefore, posted, meanwhile] : cases) {
        SCOPED_TRACE(name);
        pasteboard->items = itemsBefore;
        keyPoster->posted.clear();
        const int writesBefore = pasteboard->writeCount;
        clock.start();
        insert(dictation);
        TestSupport::spin(300ms);
        // The paste waits 50 ms; the restoration 600 ms more.
        EXPECT_GE(postedAt, 50) << "pasted after " << postedAt << " ms";
        EXPECT_EQ(pasteboard->string(), dictation);
        if (meanwhile)
            meanwhile();
        // Past every restoration, and long enough for a second paste to show up, were one scheduled.
        TestSupport::spin(1500ms);
        EXPECT_EQ(keyPoster->posted, posted);
        EXPECT_EQ(pasteboard->items, before);
        // Each dictation writes its text once and one restoration puts the user's contents back,
        // each replacing the contents at once: an emptied clipboard in between is what a clipboard
        // manager fills with its own item.
        EXPECT_EQ(pasteboard->writeCount - writesBefore, int(posted.size() / 2) + 1);
    }

    // A save that takes a while (an owner answering through pipes): a dictation during it waits for
    // the first one's paste, each pastes its own words, and quitting mid-save writes nothing.
    pasteboard->snapshotDelay = 200ms;
    QStringList pasted;
    keyPoster->onPost = [&](const KeyPoster::KeyEvent& event) { pasted << (event.keyDown ? pasteboard->string().value_or("") : ""); };
    insert("primeiro");
    insert("segundo");
    TestSupport::spin(1500ms);
    EXPECT_EQ(pasted, QStringList({"primeiro", "", "segundo", ""}));
    EXPECT_EQ(pasteboard->items, before);
    const int writes = pasteboard->writeCount;
    insert("terceiro");
    QMetaObject::invokeMethod(QCoreApplication::instance(), "aboutToQuit");
    TestSupport::spin(500ms);
    EXPECT_EQ(pasteboard->writeCount, writes);

    // An owner that gave nothing: the words are pasted all the same and stay on the clipboard, which
    // is not emptied as if the user had held nothing.
    pasteboard->snapshotDelay = 0ms;
    pasteboard->ownerSilent = true;
    pasted.clear();
    insert("quarto");
    TestSupport::spin(1000ms);
    EXPECT_EQ(pasted, QStringList({"quarto", ""}));
    EXPECT_EQ(pasteboard->string(), "quarto");
}

// GNOME holds the first paste of every run of the program until the user answers its consent
// dialog: that paste leaves the text on the clipboard until the long wait is over (a quick
// restoration would have the held Ctrl+V paste the old clipboard), and says so; later pastes of the
// run restore as usual.
TEST(TextInserterTest, TheFirstPasteThroughGnomesConsentDialogWaitsForTheAnswerBeforeRestoring)
{
    auto pasteboard = std::make_shared<FakePasteboard>();
    auto keyPoster = std::make_shared<FakeKeyPoster>();
    const std::vector<FakePasteboard::FakeItem> before = {{{FakePasteboard::plainTextType, QByteArray("antes")}}};
    pasteboard->items = before;
    const TextInserter::Target target{pasteboard, keyPoster, {.beforeRestoreAfterConsent = 2000ms}, TextInserter::Mode::askingConsent};

    EXPECT_EQ(TextInserter::insert(dictation, target), TextInserter::Mode::askingConsent);
    TestSupport::spin(1200ms);
    EXPECT_EQ(keyPoster->posted.size(), 2u);
    EXPECT_EQ(pasteboard->string(), dictation) << "restored while the dialog may still hold the paste";
    EXPECT_TRUE(TestSupport::waitUntil([&] { return pasteboard->items == before; }, 3s));

    EXPECT_EQ(TextInserter::insert("segundo", target), TextInserter::Mode::paste);
    TestSupport::spin(1200ms);
    EXPECT_EQ(keyPoster->posted.size(), 4u);
    EXPECT_EQ(pasteboard->items, before);
}

// Against the real X server: a real receiving window, foreign clipboard owners, xterm.
class TextInserterOnX11Test : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!TestSupport::hasX11())
            VOXARIA_SKIP("needs the X server of scripts/with-harness.sh");
        ASSERT_TRUE(receiver.start()) << "the receiving window did not come up";
    }
    // The X server's clipboard, with the keys posted through XTest unless `keys` are given.
    static TextInserter::Target x11Target(TextInserter::Delays delays = {}, std::shared_ptr<KeyPoster> keys = nullptr)
    {
        return {std::make_shared<X11ClipboardPasteboard>(), keys ? keys : std::make_shared<XTestKeyPoster>(), delays};
    }

    ReceivingWindow receiver;
};

TEST_F(TextInserterOnX11Test, TextArrivesOnceWhateverTheUserHoldsAndTheClipboardEndsAsTheUserLeftIt)
{
    DesktopApps::Terminal terminal;
    ASSERT_NE(terminal.windowId(), 0u) << "xterm did not come up";
    using Formats = std::vector<std::pair<QString, QByteArray>>;
    const Formats threeFormats = {
        {"text/plain", QByteArray("texto de antes")},
        {"image/png", pngImage},
        {"application/x-voxaria-test", QByteArray("\x01\x02\xff", 3)},
    };
    const struct {
        const char* name;
        Formats before; // copied by another program just now, after any X event we saw
        int heldKey = 0; // held down through the paste
        bool intoTerminal = false; // xterm pastes on Control-Shift-V and passes Control-V on as ^V
        QByteArray copiedMeanwhile = {};
    } cases[] = {
        {"empty clipboard", {}},
        {"three formats, AltGr held (the dictation key pressed again)", threeFormats, 108},
        {"three formats, Shift held", threeFormats, 50},
        {"into a terminal", threeFormats, 0, true},
        {"the user copies during the dictation: that copy stays", threeFormats, 0, false, "copiado durante o ditado"},
    };
    TextInserter::Target target = x11Target();
    // What the dictation key's watcher sees: the user's own key changes, never the paste's.
    XInputKeyMonitor monitor;
    QList<quint16> changedKeys;
    monitor.addMonitor([&](const FlagsChangedEvent& event) { changedKeys.append(event.keyCode); });
    for (const auto& [name, before, heldKey, intoTerminal, copiedMeanwhile] : cases) {
        SCOPED_TRACE(name);
        changedKeys.clear();
        // This process lets go of the clipboard, as when a dictation restored an empty one.
        QGuiApplication::clipboard()->clear(QClipboard::Clipboard);
        std::optional<DesktopApps::ClipboardOwner> owner;
        if (!before.empty()) {
            ASSERT_TRUE(owner.emplace(before).isReady());
        }
        const QByteArray targetsBefore = DesktopApps::clipboardData("TARGETS");
        const auto received = [&] { return intoTerminal ? terminal.received() : receiver.text().toUtf8(); };
        const QByteArray expected = received() + dictation.toUtf8();
        XTestKeyboard::focus(intoTerminal ? terminal.windowId() : receiver.windowId());
        if (heldKey)
            XTestKeyboard::press(heldKey);

        // A timer due now must wait for the event loop: the clipboard writes run none of it.
        bool timerRan = false;
        QTimer::singleShot(0, [&] { timerRan = true; });
        target.terminalInFront = FrontApplication::Answer{{}, X11FrontApplication().windowClass()}.isTerminal();
        TextInserter::insert(dictation, target);
        EXPECT_FALSE(timerRan) << "the event loop ran inside insert()";
        EXPECT_TRUE(TestSupport::waitUntil([&] { return received() == expected; }, 5s)) << "got: " << received().toStdString();
        if (heldKey) {
            char keys[32] = {};
            XQueryKeymap(X11Display::shared(), keys);
            EXPECT_TRUE((keys[heldKey / 8] >> (heldKey % 8)) & 1) << "the held key came up";
            XTestKeyboard::release(heldKey);
        }
        // xclip owns the clipboard once it returns; the event loop, and so the restoration, waits.
        // The copy it leaves serving the selection must not hold on to our output.
        const QString copyMeanwhile = "printf '%1' | xclip -selection clipboard -t text/html >/dev/null 2>&1";
        if (!copiedMeanwhile.isEmpty())
            QProcess::execute("sh", {"-c", copyMeanwhile.arg(copiedMeanwhile)});
        TestSupport::spin(900ms);
        EXPECT_EQ(received(), expected) << "pasted more than once";
        if (heldKey) {
            EXPECT_EQ(changedKeys.count(heldKey == 108 ? 61 : 56), 2) << "the paste's own release and press were seen";
        }
        const Formats after = copiedMeanwhile.isEmpty() ? before : Formats{{"text/html", copiedMeanwhile}};
        if (copiedMeanwhile.isEmpty()) {
            EXPECT_EQ(DesktopApps::clipboardData("TARGETS"), targetsBefore);
        }
        for (const auto& [type, bytes] : after)
            EXPECT_EQ(DesktopApps::clipboardData(type), bytes) << type.toStdString();
    }
}

// A clipboard manager of the X11 desktop takes back a clipboard left without an owner: twenty
// dictations in a row never leave it one, so each pastes its own words and the user's copy is back.
TEST_F(TextInserterOnX11Test, AClipboardManagerNeverGetsItsItemPasted)
{
    DesktopApps::Program manager;
    manager.start(QStringLiteral(VOXARIA_HELPER_x11clipboardmanager), {});
    ASSERT_TRUE(TestSupport::waitUntil([&] { return manager.canReadLine(); }, 15s)) << "the clipboard manager did not start";
    manager.readLine();
    const TextInserter::Target target = x11Target({50ms, 300ms});
    for (int run = 1; run <= 20; ++run) {
        SCOPED_TRACE(run);
        const QByteArray before = "antes do ditado " + QByteArray::number(run);
        DesktopApps::ClipboardOwner owner({{"text/plain", before}});
        ASSERT_TRUE(owner.isReady());
        const QString dictated = QStringLiteral("ditado número %1 ").arg(run);
        const QString expected = receiver.text() + dictated;
        XTestKeyboard::focus(receiver.windowId());
        TextInserter::insert(dictated, target);
        EXPECT_TRUE(TestSupport::waitUntil([&] { return receiver.text() == expected; }, 5s)) << "got: " << receiver.text().toStdString();
        EXPECT_TRUE(TestSupport::waitUntil([&] { return DesktopApps::clipboardData("text/plain") == before; }, 5s))
            << "the clipboard holds " << DesktopApps::clipboardData("text/plain").toStdString();
    }
    EXPECT_EQ(manager.readAll().toStdString(), "") << "the clipboard was left without an owner for a moment";
}

// An owner that never answers (stopped): the main thread keeps running while the clipboard is
// read, the dictation is pasted after one deadline, and the clipboard keeps it instead of being
// emptied as if the owner had held nothing.
TEST_F(TextInserterOnX11Test, AnOwnerThatNeverAnswersFreezesNothingAndEmptiesNothing)
{
    DesktopApps::ClipboardOwner owner({{"text/plain", QByteArray("do dono parado")}});
    ASSERT_TRUE(owner.isReady());
    ASSERT_EQ(::kill(pid_t(owner.processId()), SIGSTOP), 0);
    QElapsedTimer clock;
    qint64 lastTick = 0, longestGap = 0;
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, [&] {
        longestGap = std::max(longestGap, clock.elapsed() - lastTick);
        lastTick = clock.elapsed();
    });
    const QString expected = receiver.text() + dictation;
    XTestKeyboard::focus(receiver.windowId());
    clock.start();
    ticker.start(10);
    TextInserter::insert(dictation, x11Target());
    EXPECT_TRUE(TestSupport::waitUntil([&] { return receiver.text() == expected; }, 10s)) << "got: " << receiver.text().toStdString();
    TestSupport::spin(1s); // past the restoration
    ticker.stop();
    EXPECT_LT(longestGap, 100) << "the main thread stood still for " << longestGap << " ms";
    EXPECT_EQ(DesktopApps::clipboardData("text/plain").toStdString(), dictation.toStdString());
    ::kill(pid_t(owner.processId()), SIGCONT);
}

// A copy larger than the X server takes in one request comes in pieces (INCR) and goes back whole.
TEST_F(TextInserterOnX11Test, AClipboardTooLargeForOneRequestComesBackWhole)
{
    QTemporaryFile file;
    ASSERT_TRUE(file.open());
    QByteArray large(20 * 1024 * 1024, Qt::Uninitialized);
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(large.data()), large.size() / 4);
    file.write(large);
    file.flush();
    // xclip leaves a child serving the selection until somebody else owns it, or for ever when a
    // reader leaves a transfer unfinished: with no pipe of ours, that one cannot hold up the test run.
    const QString copy = "xclip -selection clipboard -t application/x-voxaria-large -i '%1' >/dev/null 2>&1";
    ASSERT_EQ(QProcess::execute("sh", {"-c", copy.arg(file.fileName())}), 0);
    const auto keys = std::make_shared<FakeKeyPoster>();
    bool pasted = false;
    keys->onPost = [&](const KeyPoster::KeyEvent&) { pasted = true; };
    TextInserter::insert(dictation, x11Target({50ms, 100ms}, keys));
    ASSERT_TRUE(TestSupport::waitUntil([&] { return pasted; }, 10s));
    TestSupport::spin(500ms);
    EXPECT_TRUE(DesktopApps::clipboardData("application/x-voxaria-large") == large);
}

}
