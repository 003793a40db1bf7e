// Voxaria outside a plain X11 session: the session it believes it is in, real sway and KWin sessions,
// data-control clipboards, Hyprland's active window and keyboards read from event devices.
#include "AppRun.h"
#include "DesktopApps.h"
#include "Dictation/TextInserter.h"
#include "ExtDataControlServer.h"
#include "HeadlessKWin.h"
#include "HeadlessSway.h"
#include "Platform/Fakes/FakeKeyPoster.h"
#include "Platform/Linux/Input/EvdevKeyMonitor.h"
#include "Platform/Linux/Wayland/CompositorFrontApplication.h"
#include "Platform/Linux/Wayland/DataControlPasteboard.h"
#include "Platform/Linux/Wayland/WaylandClient.h"
#include "Platform/SessionInfo.h"
#include "TestSupport.h"

#include <QBuffer>
#include <QImage>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTimer>

#include <gtest/gtest.h>

#include <array>
#include <csignal>

#include <fcntl.h>
#include <linux/input.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace std::chrono_literals;
using Kind = SessionInfo::Kind;
using Compositor = SessionInfo::Compositor;

TEST(Session, IsReadFromTheEnvironment)
{
    const std::pair<QStringList, std::tuple<Kind, Compositor, bool>> rows[] = {
        {{}, {Kind::none, Compositor::none, false}},
        {{"XDG_SESSION_TYPE=wayland"}, {Kind::none, Compositor::none, false}},
        {{"DISPLAY=:0", "XDG_SESSION_TYPE=x11", "WAYLAND_DISPLAY=wayland-0"}, {Kind::x11, Compositor::none, true}},
        {{"WAYLAND_DISPLAY=wayland-1", "HYPRLAND_INSTANCE_SIGNATURE=abc", "DISPLAY=:1"}, {Kind::wayland, Compositor::wlroots, true}},
        {{"WAYLAND_DISPLAY=wayland-0", "XDG_CURRENT_DESKTOP=ubuntu:GNOME"}, {Kind::wayland, Compositor::gnome, false}},
        {{"WAYLAND_DISPLAY=wayland-0", "XDG_CURRENT_DESKTOP=river"}, {Kind::wayland, Compositor::other, false}},
    };
    for (const auto& [variables, expected] : rows) {
        QProcessEnvironment environment;
        for (const QString& variable : variables)
            environment.insert(variable.section('=', 0, 0), variable.section('=', 1));
        const SessionInfo session = SessionInfo::fromEnvironment(environment);
        EXPECT_EQ(std::tuple(session.kind, session.compositor, session.hasXDisplay), expected) << variables.join(' ').toStdString();
    }
}

TEST(CommandLine, NoDisplayUnknownArgumentsAndNoProgramToTellAreEachSaid)
{
    QTemporaryDir runtime;
    QProcessEnvironment onlyRuntime;
    onlyRuntime.insert("XDG_RUNTIME_DIR", runtime.path());
    const auto runToEnd = [&](const QStringList& arguments) {
        QProcess process;
        process.setProcessEnvironment(onlyRuntime);
        process.start(QStringLiteral(VOXARIA_APP_BINARY), arguments);
        process.waitForFinished(20000);
        return std::pair(process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardError()).trimmed());
    };
    EXPECT_EQ(runToEnd({}), std::pair(1, QStringLiteral("O Voxaria precisa de uma sessão gráfica (X11 ou Wayland).")));
    EXPECT_EQ(runToEnd({"--pres"}), std::pair(2, QStringLiteral("uso: voxaria [--press | --release]")));
    const auto [status, message] = runToEnd({"--release"});
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(message.startsWith("O Voxaria não está em execução")) << message.toStdString();
}

// A PNG of noise, so its size stays about three bytes a pixel.
QByteArray pngImage(int side)
{
    QImage image(side, side, QImage::Format_RGB32);
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(image.bits()), side * side);
    QByteArray png;
    QBuffer buffer(&png);
    image.save(&buffer, "PNG");
    return png;
}

// Why a desktop session cannot run here with the harness's sound, given why its compositor cannot.
QString sessionUnavailable(const QString& compositorUnavailable)
{
    if (!compositorUnavailable.isEmpty() || (TestSupport::hasPulseAudio() && !qEnvironmentVariableIsEmpty("VOXARIA_HARNESS_PULSE_SERVER")))
        return compositorUnavailable;
    return "needs the harness's shared PulseAudio (run under scripts/with-harness.sh)";
}

// A clipboard manager refilling an emptied clipboard at once, as Klipper does; it says so on its output.
void startClipboardManager(DesktopApps::Program& manager, const HeadlessCompositor& server)
{
    manager.setProcessEnvironment(server.clientEnvironment());
    manager.start(QStringLiteral(VOXARIA_HELPER_datacontrolclipboard), {"manager"});
    ASSERT_TRUE(TestSupport::waitUntil([&] { return manager.canReadLine(); }, 10s)) << "the clipboard manager did not start";
    manager.readLine();
}

// Starts `app` in `session` with these `variables`, its whisper-cli saying `words`; it must log each
// of `says`, and that the session has no tray.
void launch(
    AppRun& app, const HeadlessCompositor& session, const QProcessEnvironment& variables, const QString& words, const QStringList& says)
{
    app.useFakeWhisper(QStringLiteral("text=%1\n").arg(words));
    app.setEnvironment(variables);
    app.runAs(session.uid(), session.gid());
    ASSERT_TRUE(app.start()) << app.logText();
    for (const QString& line : says + QStringList{"no system tray"})
        ASSERT_TRUE(app.waitForLog(line, 10s)) << app.logText();
}

// On sway: the words pasted (Control-V into a Qt window, Control-Shift-V into foot) while Shift is held
// elsewhere and a clipboard manager runs, the clipboard back whatever its type; windows via XWayland or not.
TEST(Sway, HeldKeyPastesIntoWaylandWindowsAndTerminalsAndPutsTheClipboardBack)
{
    if (const QString why = sessionUnavailable(HeadlessSway::unavailableReason()); !why.isEmpty())
        VOXARIA_SKIP(why);
    // The README's rule for the native window that stands in for a missing tray.
    HeadlessSway sway{{"no_focus [app_id=\"app.voxaria.Voxaria\" title=\"O Voxaria está em execução\"]"}};
    ASSERT_TRUE(sway.start()) << sway.failure().toStdString();
    using Row = std::tuple<ReceivingWindow::OnSway, QByteArray, QString, bool>;
    for (const auto& [kind, before, type, xwayland] :
        {Row{ReceivingWindow::OnSway::wayland, "antes do ditado", "text/plain;charset=utf-8", true},
            Row{ReceivingWindow::OnSway::terminal, pngImage(16), "image/png", false}}) {
        QProcessEnvironment session = sway.sessionVariables();
        if (!xwayland)
            session.insert("DISPLAY", QString());
        ReceivingWindow window;
        ASSERT_TRUE(window.start(sway, kind)) << "focused: " << sway.focusedApplication().toStdString();
        const QString focused = sway.focusedApplication();
        AppRun app;
        ASSERT_NO_FATAL_FAILURE(launch(app, sway, session, "ditado pelo sway",
            {xwayland ? "windows through xcb" : "windows through wayland", "dictation key through compositor bindings",
                "pasted through data-control and a virtual keyboard"}));
        TestSupport::spin(1s); // the window standing in for the tray leaves the focus alone
        EXPECT_EQ(sway.focusedApplication(), focused);
        DesktopApps::Program manager;
        ASSERT_NO_FATAL_FAILURE(startClipboardManager(manager, sway));
        ASSERT_TRUE(sway.copy(before, type));
        DesktopApps::Program speech, shift;
        speech.start("paplay", {TestSupport::testDataPath("speech/fleurs-en-004.ogg")});
        shift.setProcessEnvironment(sway.clientEnvironment());
        shift.start("wtype", {"-s", "500", "-M", "shift", "-s", "9000", "-m", "shift"});
        ASSERT_TRUE(sway.type({"-P", "Alt_R", "-s", "2500", "-p", "Alt_R"}));
        EXPECT_TRUE(app.waitForLog("\"rightOption\" released", 10s)) << app.logText();
        EXPECT_TRUE(window.waitForText("ditado pelo sway", 30s)) << window.text().toStdString() << app.logText();
        // `voxaria --press` and `--release` reached the running program, and neither took its place.
        EXPECT_EQ(app.log().filter("\"rightOption\" pressed").size(), 1);
        EXPECT_EQ(app.process().state(), QProcess::Running);
        EXPECT_TRUE(TestSupport::waitUntil([&] { return sway.paste(type) == before; }, 10s)) << type.toStdString();
        EXPECT_EQ(manager.readAll().toStdString(), "") << "the clipboard was empty for a moment";
        shift.waitForFinished(15000);
    }
}

class KWin : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const QString why = sessionUnavailable(HeadlessKWin::unavailableReason()); !why.isEmpty())
            VOXARIA_SKIP(why);
    }

    // KWin typing in `layout`, where our desktop file lets `allowed`'s copy of the program use fake input.
    bool startKWin(const QString& layout, const AppRun& allowed)
    {
        QFile entry(QStringLiteral(VOXARIA_TESTDATA_DIR "/../../resources/app.voxaria.Voxaria.desktop"));
        const QByteArray exec = "\nExec=" + allowed.program().toUtf8() + '\n';
        return entry.open(QIODevice::ReadOnly)
            && kwin.emplace(layout).installApplication("app.voxaria.Voxaria.desktop", entry.readAll().replace("\nExec=voxaria\n", exec))
            && kwin->start();
    }

    // Holds `down` through 3 s of speech (a shorter hold is taken for a key held by mistake).
    void dictate(AppRun& app, const QStringList& down, const QStringList& up)
    {
        ASSERT_TRUE(kwin->pressKeys(down));
        EXPECT_TRUE(app.waitForLog("Ouvindo", 10s)) << app.logText();
        DesktopApps::Program speech;
        speech.start("paplay", {TestSupport::testDataPath("speech/jfk.wav")});
        TestSupport::spin(3s);
        ASSERT_TRUE(kwin->pressKeys(up));
    }

    std::optional<HeadlessKWin> kwin;
};

// On Plasma in the Brazilian layout (Right Alt is AltGr, bound alone): the words pasted and the clipboard
// put back where the desktop file lets the program type; a copy it does not name (a build's) only copies.
TEST_F(KWin, HeldKeyPastesWhereADesktopFileAllowsTheFakeInputAndOnlyCopiesElsewhere)
{
    AppRun apps[2];
    if (!startKWin("br", apps[1]))
        VOXARIA_SKIP("KWin does not start here: " + kwin->failure());
    const QByteArray before = "antes do ditado";
    for (const bool allowed : {false, true}) {
        AppRun& app = apps[allowed];
        ReceivingWindow window;
        const QString route = allowed ? "pasted through data-control and KWin's fake input"
                                      : "KWin does not offer org_kde_kwin_fake_input to " + app.program();
        ASSERT_TRUE(window.start(*kwin)) << kwin->log().toStdString();
        ASSERT_NO_FATAL_FAILURE(
            launch(app, *kwin, kwin->sessionVariables(), "ditado pelo kwin", {"dictation key through kglobalaccel", route}));
        ASSERT_TRUE(kwin->copy(before, "text/plain;charset=utf-8"));
        ASSERT_NO_FATAL_FAILURE(dictate(app, {"+100"}, {"-100"}));
        EXPECT_TRUE(app.waitForLog("\"rightOption\" released", 10s)) << app.logText();
        if (allowed) {
            EXPECT_TRUE(window.waitForText("ditado pelo kwin", 30s)) << window.text().toStdString() << app.logText();
            EXPECT_TRUE(TestSupport::waitUntil([&] { return kwin->paste("text/plain") == before; }, 10s));
        } else {
            EXPECT_TRUE(app.waitForLog("Texto copiado", 30s)) << app.logText();
            EXPECT_EQ(kwin->paste("text/plain"), QByteArray("ditado pelo kwin"));
            EXPECT_EQ(window.text(), QString());
        }
        app.stop(); // one Voxaria per session
    }
}

// In US Dvorak, Right Alt is Alt_R, which never fires a global shortcut alone: Ctrl+Alt+Space holds
// the dictation key, and the paste presses the key that types "v" there (QWERTY's V types "k").
TEST_F(KWin, InUsDvorakTheChordHoldsTheKeyAndThePasteFindsVInTheLayout)
{
    AppRun app;
    if (!startKWin("us(dvorak)", app))
        VOXARIA_SKIP("KWin does not start here: " + kwin->failure());
    ReceivingWindow window;
    ASSERT_TRUE(window.start(*kwin)) << kwin->log().toStdString();
    ASSERT_NO_FATAL_FAILURE(launch(app, *kwin, kwin->sessionVariables(), "ditado em dvorak",
        {"hold Ctrl+Alt+Espaço", "pasted through data-control and KWin's fake input"}));
    ASSERT_NO_FATAL_FAILURE(dictate(app, {"+29", "+56", "+57"}, {"-57", "-56", "-29"})); // Left Control, Left Alt, Space
    EXPECT_TRUE(window.waitForText("ditado em dvorak", 30s)) << window.text().toStdString() << app.logText();
}

// Data-control servers: sway and KWin (wlroots' protocol, as Plasma 5.27 has it), one with ext's alone.
enum class ClipboardServer { sway, kwin, ext };
class DataControl : public ::testing::TestWithParam<ClipboardServer> { };

INSTANTIATE_TEST_SUITE_P(
    , DataControl, ::testing::Values(ClipboardServer::sway, ClipboardServer::kwin, ClipboardServer::ext), [](const auto& server) {
        return std::string(std::array{"sway", "KWin", "ext"}[int(server.param)]);
    });

// With a clipboard manager running: twenty dictations each pasting their own words, the user's copy back
// after each; a large image read whole, several types of ours handed out, a newer copy ending our
// ownership; an owner that never answers costing the paste one deadline for all its types, freezing nothing.
TEST_P(DataControl, TheClipboardIsSavedOfferedAndPutBackAndNeverLeftEmpty)
{
    const bool ext = GetParam() == ClipboardServer::ext;
    const QString unavailable = GetParam() == ClipboardServer::sway ? HeadlessSway::unavailableReason()
        : GetParam() == ClipboardServer::kwin                       ? HeadlessKWin::unavailableReason()
                                                                    : QString();
    if (!unavailable.isEmpty())
        VOXARIA_SKIP(unavailable);
    const std::unique_ptr<HeadlessCompositor> server = GetParam() == ClipboardServer::sway
        ? std::unique_ptr<HeadlessCompositor>(std::make_unique<HeadlessSway>())
        : GetParam() == ClipboardServer::kwin ? std::unique_ptr<HeadlessCompositor>(std::make_unique<HeadlessKWin>("us"))
                                              : std::make_unique<ExtDataControlServer>();
    ASSERT_TRUE(server->start()) << server->failure().toStdString();
    const auto client = WaylandClient::connect(server->waylandSocket());
    ASSERT_TRUE(client && client->dataControl());
    EXPECT_STREQ(client->dataControlProtocol(), ext ? "ext" : "wlr");
    DesktopApps::Program manager;
    ASSERT_NO_FATAL_FAILURE(startClipboardManager(manager, *server));
    const auto board = std::make_shared<DataControlPasteboard>(client);
    const auto keys = std::make_shared<FakeKeyPoster>();
    std::optional<QByteArray> pasted;
    // What the focused window would paste at the moment the keys go down.
    keys->onPost = [&](const KeyPoster::KeyEvent& event) {
        if (event.keyDown)
            pasted = server->paste("text/plain;charset=utf-8");
    };
    for (int run = 1; run <= 20; ++run) {
        SCOPED_TRACE(run);
        const QByteArray before = "antes do ditado " + QByteArray::number(run);
        ASSERT_TRUE(server->copy(before, "text/plain;charset=utf-8"));
        pasted.reset();
        const QString dictated = QStringLiteral("ditado número %1").arg(run);
        TextInserter::insert(dictated, {board, keys, {50ms, 300ms}});
        ASSERT_TRUE(TestSupport::waitUntil([&] { return pasted.has_value(); }, 10s));
        EXPECT_EQ(pasted.value_or("").toStdString(), dictated.toStdString());
        EXPECT_TRUE(TestSupport::waitUntil([&] { return server->paste("text/plain;charset=utf-8") == before; }, 5s))
            << "the clipboard holds " << server->paste("text/plain;charset=utf-8").value_or("nothing").toStdString();
    }

    const QByteArray large = pngImage(1200);
    ASSERT_TRUE(server->copy(large, "image/png"));
    EXPECT_EQ(board->types(0), QStringList{"image/png"});
    EXPECT_EQ(board->data(0, "image/png"), large);
    Pasteboard::Item item;
    item.setData("text/html", "<b>olá</b>");
    item.setData("image/png", large);
    board->writeItems({item});
    EXPECT_TRUE(board->ownsContents());
    EXPECT_EQ(server->clipboardTypes(), QStringList({"text/html", "image/png"}));
    EXPECT_EQ(server->paste("image/png"), large);
    EXPECT_EQ(server->paste("text/html"), QByteArray("<b>olá</b>"));
    ASSERT_TRUE(server->copy("de outro programa", "text/plain"));
    EXPECT_FALSE(board->ownsContents());
    EXPECT_EQ(board->data(0, "text/plain"), QByteArray("de outro programa"));

    // The owner: a stopped wl-copy offering several text types (a copy of ours where wl-copy cannot go).
    DesktopApps::Program owner;
    owner.setProcessEnvironment(server->clientEnvironment());
    const QStringList copy = ext ? QStringList{VOXARIA_HELPER_datacontrolclipboard, "copy"} : QStringList{"wl-copy", "--foreground", "-t"};
    owner.start(copy[0], copy.mid(1) << "text/plain;charset=utf-8");
    owner.write("do dono parado");
    owner.closeWriteChannel();
    ASSERT_TRUE(TestSupport::waitUntil([&] { return server->paste("text/plain;charset=utf-8") == QByteArray("do dono parado"); }, 20s));
    ASSERT_TRUE(ext || server->clipboardTypes().size() > 1) << "wl-copy offers its text under one type only";
    ASSERT_EQ(::kill(pid_t(owner.processId()), SIGSTOP), 0);
    int ticks = 0, ticksAtPaste = 0;
    keys->onPost = [&](const KeyPoster::KeyEvent& event) {
        if (event.keyDown)
            ticksAtPaste = ticks, pasted = server->paste("text/plain;charset=utf-8");
    };
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, [&] { ++ticks; });
    ticker.start(20);
    pasted.reset();
    TextInserter::insert("ditado apesar do dono mudo", {board, keys, {}});
    ASSERT_TRUE(TestSupport::waitUntil([&] { return pasted.has_value(); }, 10s));
    EXPECT_GT(ticksAtPaste, 40) << "the main thread stood still while the clipboard was saved";
    EXPECT_LT(ticksAtPaste, 125) << "more than one deadline of 1.5 s";
    EXPECT_EQ(pasted, QByteArray("ditado apesar do dono mudo"));
    TestSupport::spin(1s);
    EXPECT_EQ(server->paste("text/plain;charset=utf-8"), QByteArray("ditado apesar do dono mudo"));
    EXPECT_EQ(manager.readAll().toStdString(), "") << "the clipboard was empty for a moment";
}

// Hyprland names its active window on a socket of its own; nothing focused is no application.
TEST(CompositorFrontApplication, HyprlandsActiveWindowIsTheFrontApplication)
{
    QTemporaryDir runtime;
    QDir(runtime.path()).mkpath("hypr/abc");
    // Hyprland's stand-in: each request for the active window gets the next reply, and the connection ends.
    DesktopApps::Program hyprland;
    hyprland.start("python3",
        {"-c",
            "import socket, sys\nserver = socket.socket(socket.AF_UNIX)\nserver.bind(sys.argv[1])\nserver.listen()\nprint(flush=True)\n"
            "for reply in sys.argv[2:]:\n    client = server.accept()[0]\n"
            "    client.sendall(reply.encode() if client.recv(64) == b'j/activewindow' else b'')\n    client.close()\n",
            runtime.filePath("hypr/abc/.socket.sock"), R"({"class": "kitty", "initialClass": "kitty", "pid": 4242, "title": "~"})", "{}"});
    ASSERT_TRUE(TestSupport::waitUntil([&] { return hyprland.canReadLine(); }, 10s)) << hyprland.readAllStandardError().toStdString();
    QProcessEnvironment session;
    session.insert("HYPRLAND_INSTANCE_SIGNATURE", "abc");
    session.insert("XDG_RUNTIME_DIR", runtime.path());
    const auto front = CompositorFrontApplication::forSession(session);
    ASSERT_TRUE(front);
    EXPECT_EQ(front->windowClass(), (FrontApplication::WindowClass{"kitty", "kitty"}));
    EXPECT_EQ(front->windowClass(), std::nullopt);
}

// Keyboards in a device folder (pipes here): each heard, one plugged in later too, one unplugged lets go.
TEST(Keyboards, EveryKeyboardIsHeardAndOneUnpluggedLetsGoOfItsKeys)
{
    QTemporaryDir folder;
    const auto plugIn = [&](const char* name) {
        const QByteArray path = QFile::encodeName(folder.filePath(QLatin1String(name)));
        EXPECT_EQ(::mkfifo(path.constData(), 0600), 0);
        return ::open(path.constData(), O_RDWR | O_NONBLOCK);
    };
    const auto key = [](int fd, int code, int value) {
        const input_event records[] = {{{1000, 0}, EV_KEY, quint16(code), value}, {{1000, 0}, EV_SYN, SYN_REPORT, 0}};
        EXPECT_EQ(::write(fd, records, sizeof records), ssize_t(sizeof records));
    };
    std::vector<std::pair<int, quint64>> events;
    const auto received = [&](size_t count) { return TestSupport::waitUntil([&] { return events.size() >= count; }, 10s); };
    const int first = plugIn("event0");
    EvdevKeyMonitor monitor(folder.path());
    ASSERT_NE(monitor.addMonitor([&](const FlagsChangedEvent& event) { events.emplace_back(event.keyCode, event.modifierFlags); }), 0u);
    key(first, KEY_A, 1); // not a modifier
    key(first, KEY_RIGHTALT, 1);
    key(first, KEY_RIGHTALT, 2); // the key repeating
    key(first, KEY_RIGHTALT, 0);
    ASSERT_TRUE(received(2));
    const int second = plugIn("event1");
    key(second, KEY_LEFTMETA, 1); // waiting in the pipe until the folder's change is seen
    ASSERT_TRUE(received(3));
    key(first, KEY_RIGHTALT, 1);
    ASSERT_TRUE(received(4));
    ::close(first); // gone while right Alt is held
    ASSERT_TRUE(received(5));
    ::close(second);
    ASSERT_TRUE(received(6));
    const std::vector<std::pair<int, quint64>> expected{{61, 0x80000}, {61, 0}, {55, 0x100000}, {61, 0x180000}, {61, 0x100000}, {55, 0}};
    EXPECT_EQ(events, expected);
}
