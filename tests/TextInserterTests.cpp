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
#include <QDir>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QProcess>
#include <QRandomGenerator>
#include <QStandardPaths>
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

// GNOME 45's XWayland gets a synthetic paste, older or unknown GNOME a copy (X11, sway, KWin run for real).
TEST(TextInserterTest, ThePasteIsUsedOnlyWhereItReachesTheFocusedWindow)
{
    using Kind = SessionInfo::Kind;
    using enum SessionInfo::Compositor;
    using enum SessionPlatform::PasteRoute;
    const auto route = [](SessionInfo session, bool canPaste, std::optional<int> gnome = std::nullopt) {
        return LinuxPlatform::pasteRouteFor(session, gnome, [=] { return canPaste; });
    };
    EXPECT_EQ(route({Kind::wayland, gnome, true}, true, 45), xwayland);
    EXPECT_EQ(route({Kind::wayland, gnome, true}, false, 46), copyOnly);
    EXPECT_EQ(route({Kind::wayland, gnome, true}, true, 44), copyOnly);
    EXPECT_EQ(route({Kind::wayland, gnome, true}, true), copyOnly);
    EXPECT_EQ(route({Kind::wayland, gnome, false}, true, 46), copyOnly);
    EXPECT_EQ(route({Kind::wayland, wlroots, false}, false), copyOnly);
    EXPECT_EQ(route({Kind::wayland, other, false}, true), copyOnly);
    EXPECT_EQ(GnomeShellVersion::majorOf("46.2"), 46);
    EXPECT_EQ(GnomeShellVersion::majorOf("3.38.4"), 3);
    EXPECT_EQ(GnomeShellVersion::majorOf("45.rc"), 45);
    EXPECT_EQ(GnomeShellVersion::majorOf("abc"), std::nullopt);
}

TEST(TextInserterTest, PastesOnceAfterFiftyMillisecondsThenPutsBackWhatTheUserLastHadAfterGnomesConsentTheFirstTime)
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
        EXPECT_GE(postedAt, 50) << "pasted after " << postedAt << " ms";
        EXPECT_EQ(pasteboard->string(), dictation);
        if (meanwhile)
            meanwhile();
        TestSupport::spin(1500ms); // past every restoration, and any second paste
        EXPECT_EQ(keyPoster->posted, posted);
        EXPECT_EQ(pasteboard->items, before);
        // One write per dictation and one restoration: never an empty clipboard for a manager to fill.
        EXPECT_EQ(pasteboard->writeCount - writesBefore, int(posted.size() / 2) + 1);
    }

    // A slow save: a dictation during it waits for the first's paste, and quitting mid-save writes nothing.
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

    // An owner that gave nothing: the words are pasted and stay on the clipboard, not emptied.
    pasteboard->snapshotDelay = 0ms;
    pasteboard->ownerSilent = true;
    pasted.clear();
    insert("quarto");
    TestSupport::spin(1000ms);
    EXPECT_EQ(pasted, QStringList({"quarto", ""}));
    EXPECT_EQ(pasteboard->string(), "quarto");

    // GNOME holds the first paste of a run until the user answers its consent dialog: that paste
    // leaves the text on the clipboard through a long wait (else the held Ctrl+V pastes the old one).
    pasteboard->ownerSilent = false;
    pasteboard->items = before;
    keyPoster->posted.clear();
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

// Against the real X server: a real receiving window, other programs owning the clipboard, xterm.
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
    const Formats threeFormats = {{"text/plain", QByteArray("texto de antes")}, {"image/png", pngImage},
        {"application/x-voxaria-test", QByteArray("\x01\x02\xff", 3)}};
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
        ASSERT_TRUE(before.empty() || owner.emplace(before).isReady());
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
        // xclip owns the clipboard once it returns, before the event loop (and the restoration) runs.
        if (!copiedMeanwhile.isEmpty())
            QProcess::execute(
                "sh", {"-c", QStringLiteral("printf '%1' | xclip -selection clipboard -t text/html >/dev/null 2>&1").arg(copiedMeanwhile)});
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

// A clipboard manager takes back a clipboard left without an owner: twenty dictations in a row never
// leave it one, so each pastes its own words and the user's copy is back.
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

// An owner that never answers (stopped): the dictation is pasted after one deadline and stays on the clipboard.
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
    QByteArray large(20 * 1024 * 1024, Qt::Uninitialized);
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(large.data()), large.size() / 4);
    const QString file = QDir::temp().filePath("voxaria-large-copy");
    ASSERT_TRUE(TestSupport::writeFile(file, large));
    // xclip's child serves the selection, for ever if a transfer is left unfinished: no pipe of ours.
    const QString copy = "xclip -selection clipboard -t application/x-voxaria-large -i '%1' >/dev/null 2>&1";
    ASSERT_EQ(QProcess::execute("sh", {"-c", copy.arg(file)}), 0);
    const auto keys = std::make_shared<FakeKeyPoster>();
    bool pasted = false;
    keys->onPost = [&](const KeyPoster::KeyEvent&) { pasted = true; };
    TextInserter::insert(dictation, x11Target({50ms, 100ms}, keys));
    ASSERT_TRUE(TestSupport::waitUntil([&] { return pasted; }, 10s));
    TestSupport::spin(500ms);
    EXPECT_TRUE(DesktopApps::clipboardData("application/x-voxaria-large") == large);
}

// The history names the focused application by its desktop entry's pt_BR name, else its window class.
TEST_F(TextInserterOnX11Test, TheFrontApplicationIsNamedByItsBrazilianDesktopEntryElseByItsWindowClass)
{
    X11FrontApplication front;
    const auto install = [](const QString& fileName, const QByteArray& contents) {
        const QDir applications(QStandardPaths::writableLocation(QStandardPaths::ApplicationsLocation));
        ASSERT_TRUE(TestSupport::writeFile(applications.filePath(fileName), contents));
    };
    EXPECT_EQ(front.localizedName(), "receiver");
    // Matched by its file name alone, untranslated.
    install("Receiver.desktop", "[Desktop Entry]\nType=Application\nName=Receiving Window\nExec=receiver\n");
    EXPECT_EQ(front.localizedName(), "Receiving Window");
    // An entry naming the window class wins, in its pt_BR translation; an action's name is no name.
    install("org.example.Inbox.desktop",
        "[Desktop Entry]\nType=Application\nName=Inbox\nName[pt]=Caixa\nName[pt_BR]=Caixa de Entrada\n"
        "StartupWMClass=Receiver\nActions=new;\n\n[Desktop Action new]\nName=New window\nName[pt_BR]=Nova janela\n");
    EXPECT_EQ(front.localizedName(), "Caixa de Entrada");
    // Entries are read once, not before every paste: one rewritten in place is not read again.
    install("org.example.Inbox.desktop", "[Desktop Entry]\nName=Outro nome\nStartupWMClass=Receiver\n");
    EXPECT_EQ(front.localizedName(), "Caixa de Entrada");
}

}
