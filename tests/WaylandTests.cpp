// Voxaria outside a plain X11 session: which session it believes it is in, the compositor's key
// bindings reaching the running program through `voxaria --press` / `--release`, and the keyboards
// read from event devices (fed here through pipes, since test machines have no keyboards).
#include "AppRun.h"
#include "DesktopApps.h"
#include "Dictation/TextInserter.h"
#include "ExtDataControlServer.h"
#include "HeadlessKWin.h"
#include "HeadlessSway.h"
#include "HistoryFiles.h"
#include "Platform/Fakes/FakeKeyPoster.h"
#include "Platform/Linux/Input/EvdevKeyMonitor.h"
#include "Platform/Linux/Wayland/CompositorFrontApplication.h"
#include "Platform/Linux/Wayland/DataControlPasteboard.h"
#include "Platform/Linux/Wayland/WaylandClient.h"
#include "Platform/SessionInfo.h"
#include "TestSupport.h"

#include <QBuffer>
#include <QImage>
#include <QLocalServer>
#include <QLocalSocket>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTimer>

#include <gtest/gtest.h>

#include "wlr-data-control-unstable-v1-client-protocol.h"

#include <atomic>
#include <thread>

#include <fcntl.h>
#include <linux/input.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace std::chrono_literals;
using Kind = SessionInfo::Kind;
using Compositor = SessionInfo::Compositor;

TEST(Session, IsReadFromTheEnvironment)
{
    struct Row {
        QStringList variables;
        Kind kind;
        Compositor compositor;
        bool hasXDisplay;
    };
    const Row rows[] = {
        {{}, Kind::none, Compositor::none, false},
        {{"XDG_SESSION_TYPE=wayland"}, Kind::none, Compositor::none, false},
        {{"DISPLAY=:0", "XDG_SESSION_TYPE=x11", "WAYLAND_DISPLAY=wayland-0"}, Kind::x11, Compositor::none, true},
        {{"WAYLAND_DISPLAY=wayland-1", "SWAYSOCK=/run/user/1000/sway-ipc.sock"}, Kind::wayland, Compositor::wlroots, false},
        {{"WAYLAND_DISPLAY=wayland-1", "HYPRLAND_INSTANCE_SIGNATURE=abc", "DISPLAY=:1"}, Kind::wayland, Compositor::wlroots, true},
        {{"WAYLAND_DISPLAY=wayland-0", "XDG_CURRENT_DESKTOP=KDE", "DISPLAY=:1"}, Kind::wayland, Compositor::kde, true},
        {{"WAYLAND_DISPLAY=wayland-0", "XDG_CURRENT_DESKTOP=ubuntu:GNOME"}, Kind::wayland, Compositor::gnome, false},
        {{"WAYLAND_DISPLAY=wayland-0", "XDG_CURRENT_DESKTOP=river"}, Kind::wayland, Compositor::other, false},
    };
    for (const Row& row : rows) {
        QProcessEnvironment environment;
        for (const QString& variable : row.variables)
            environment.insert(variable.section('=', 0, 0), variable.section('=', 1));
        const SessionInfo session = SessionInfo::fromEnvironment(environment);
        EXPECT_EQ(std::tuple(session.kind, session.compositor, session.hasXDisplay), std::tuple(row.kind, row.compositor, row.hasXDisplay))
            << row.variables.join(' ').toStdString();
    }
}

// The program run once to its end with these arguments and environment: exit status and error output.
std::pair<int, QString> runToEnd(const QStringList& arguments, const QProcessEnvironment& environment)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(VOXARIA_APP_BINARY), arguments);
    process.waitForFinished(20000);
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
        QString::fromUtf8(process.readAllStandardError()).trimmed()};
}

TEST(CommandLine, NoDisplayUnknownArgumentsAndNoProgramToTellAreEachSaid)
{
    QTemporaryDir runtime;
    QProcessEnvironment empty;
    empty.insert("XDG_RUNTIME_DIR", runtime.path());
    EXPECT_EQ(runToEnd({}, empty), std::make_pair(1, QStringLiteral("O Voxaria precisa de uma sessão gráfica (X11 ou Wayland).")));
    EXPECT_EQ(runToEnd({"--pres"}, empty), std::make_pair(2, QStringLiteral("uso: voxaria [--press | --release]")));
    const auto [status, message] = runToEnd({"--release"}, empty);
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(message.startsWith("O Voxaria não está em execução")) << message.toStdString();
}

// A PNG of noise, so its size stays about three bytes a pixel.
QByteArray pngImage(int side)
{
    QImage image(side, side, QImage::Format_RGB32);
    for (int y = 0; y < side; ++y)
        QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(image.scanLine(y)), side);
    QByteArray png;
    QBuffer buffer(&png);
    image.save(&buffer, "PNG");
    return png;
}

// A real sway session without a screen: its key bindings, its Xwayland and its clipboard.
class Sway : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!HeadlessSway::available())
            VOXARIA_SKIP(HeadlessSway::unavailableReason());
        if (!TestSupport::hasPulseAudio() || qEnvironmentVariableIsEmpty("VOXARIA_HARNESS_PULSE_SERVER"))
            VOXARIA_SKIP("needs the harness's shared PulseAudio (run under scripts/with-harness.sh)");
        ASSERT_TRUE(sway.start()) << sway.failure().toStdString();
    }

    // The README's rule for the window that stands in for a missing tray, when it is a native Wayland window.
    HeadlessSway sway{{"no_focus [app_id=\"app.voxaria.Voxaria\" title=\"O Voxaria está em execução\"]"}};
};

// What a user of sway sees: the key held through the bindings, the words pasted into the focused
// window (Control-V into a native Qt window, Control-Shift-V into foot) while Shift is held on
// another keyboard and a clipboard manager runs, and then the clipboard they had before, whatever
// its type. Voxaria's windows go through XWayland where it is there, and are native Wayland windows
// where it is not.
TEST_F(Sway, HeldKeyPastesIntoWaylandWindowsAndTerminalsAndPutsTheClipboardBack)
{
    struct Row {
        ReceivingWindow::OnSway kind;
        QByteArray before;
        QString type;
        bool xwayland;
    };
    for (const Row& row : {Row{ReceivingWindow::OnSway::wayland, "antes do ditado", "text/plain;charset=utf-8", true},
             Row{ReceivingWindow::OnSway::terminal, pngImage(16), "image/png", false}}) {
        AppRun app;
        app.useFakeWhisper("text=ditado pelo sway\n");
        QProcessEnvironment session = sway.sessionVariables();
        if (!row.xwayland)
            session.insert("DISPLAY", QString());
        app.setEnvironment(session);
        app.runAs(sway.uid(), sway.gid());
        ReceivingWindow window;
        ASSERT_TRUE(window.start(sway, row.kind)) << "focused: " << sway.focusedApplication().toStdString();
        const QString focused = sway.focusedApplication();
        ASSERT_TRUE(app.start()) << app.logText();
        EXPECT_TRUE(app.waitForLog(row.xwayland ? "windows through xcb" : "windows through wayland", 10s)) << app.logText();
        ASSERT_TRUE(app.waitForLog("dictation key through compositor bindings", 10s)) << app.logText();
        ASSERT_TRUE(app.waitForLog("pasted through data-control and a virtual keyboard", 10s)) << app.logText();
        // Sway has no tray: the window that stands in for the menu appears over the focused one
        // and leaves it the focus (through XWayland by itself, natively by the README's rule).
        ASSERT_TRUE(app.waitForLog("no system tray", 10s)) << app.logText();
        TestSupport::spin(1s);
        EXPECT_EQ(sway.focusedApplication(), focused);
        // A clipboard manager, as many sway users run, that refills an emptied clipboard at once.
        QProcess manager;
        manager.setProcessEnvironment(sway.clientEnvironment());
        manager.start(QStringLiteral(VOXARIA_HELPER_datacontrolclipboard), {"manager"});
        ASSERT_TRUE(TestSupport::waitUntil([&] { return manager.canReadLine(); }, 10s)) << "the clipboard manager did not start";
        manager.readLine();
        ASSERT_TRUE(sway.copy(row.before, row.type));
        QProcess speech, shift;
        speech.start("paplay", {TestSupport::testDataPath("speech/fleurs-en-004.ogg")});
        shift.setProcessEnvironment(sway.clientEnvironment());
        shift.start("wtype", {"-s", "500", "-M", "shift", "-s", "9000", "-m", "shift"});
        ASSERT_TRUE(sway.type({"-P", "Alt_R", "-s", "2500", "-p", "Alt_R"}));
        EXPECT_TRUE(app.waitForLog("\"rightOption\" released", 10s)) << app.logText();
        EXPECT_TRUE(window.waitForText("ditado pelo sway", 30s)) << window.text().toStdString() << app.logText();
        // `voxaria --press` and `--release` reached the running program, and neither took its place.
        EXPECT_EQ(app.log().filter("\"rightOption\" pressed").size(), 1);
        EXPECT_EQ(app.process().state(), QProcess::Running);
        EXPECT_TRUE(TestSupport::waitUntil([&] { return sway.paste(row.type) == row.before; }, 10s)) << row.type.toStdString();
        EXPECT_TRUE(sway.clipboardTypes().contains(row.type));
        EXPECT_EQ(manager.readAll().toStdString(), "") << "the clipboard was empty for a moment";
        manager.kill();
        manager.waitForFinished();
        speech.waitForFinished(10000);
        shift.waitForFinished(15000);
    }
}

// A real KWin session without a screen: its global shortcuts, its fake input and its clipboard, its
// keyboard typing in `layout`.
class KWinSession : public ::testing::Test {
protected:
    explicit KWinSession(const QString& layout)
        : kwin(layout)
    {
    }

    void SetUp() override
    {
        if (!HeadlessKWin::available())
            VOXARIA_SKIP(HeadlessKWin::unavailableReason());
        if (!TestSupport::hasPulseAudio() || qEnvironmentVariableIsEmpty("VOXARIA_HARNESS_PULSE_SERVER"))
            VOXARIA_SKIP("needs the harness's shared PulseAudio (run under scripts/with-harness.sh)");
    }

    // Lets the copy of the program in `app` use KWin's fake input, as the package's desktop file does.
    bool allowFakeInput(const AppRun& app)
    {
        QFile entry(QStringLiteral(VOXARIA_TESTDATA_DIR "/../../resources/app.voxaria.Voxaria.desktop"));
        return entry.open(QIODevice::ReadOnly)
            && kwin.installApplication(
                "app.voxaria.Voxaria.desktop", entry.readAll().replace("\nExec=voxaria\n", "\nExec=" + app.program().toUtf8() + '\n'));
    }

    // Starts `app` in the session, its whisper-cli saying `words`, with `window` in front; it must log
    // each of `says`, and that this KWin has no tray (the window saying so leaves the focus alone).
    void launch(AppRun& app, ReceivingWindow& window, const QString& words, const QStringList& says)
    {
        ASSERT_TRUE(window.start(kwin)) << kwin.log().toStdString();
        app.useFakeWhisper(QStringLiteral("text=%1\n").arg(words));
        app.setEnvironment(kwin.sessionVariables());
        app.runAs(kwin.uid(), kwin.gid());
        ASSERT_TRUE(app.start()) << app.logText();
        for (const QString& line : says + QStringList{"no system tray"})
            ASSERT_TRUE(app.waitForLog(line, 10s)) << app.logText();
    }

    // Holds `down` through fake input for 3 s of speech (without it the program rightly takes the
    // dictation for a key held by mistake), then lets go with `up`.
    void dictate(AppRun& app, const QStringList& down, const QStringList& up)
    {
        ASSERT_TRUE(kwin.pressKeys(down));
        EXPECT_TRUE(app.waitForLog("Ouvindo", 10s)) << app.logText();
        DesktopApps::Program speech;
        speech.start("paplay", {TestSupport::testDataPath("speech/jfk.wav")});
        TestSupport::spin(3s);
        ASSERT_TRUE(kwin.pressKeys(up));
    }

    HeadlessKWin kwin;
};

// Brazilian: Right Alt, the default dictation key, is AltGr there, which KDE binds alone.
class KWin : public KWinSession {
protected:
    KWin()
        : KWinSession("br")
    {
    }
};

// US Dvorak: Right Alt is Alt_R, which never fires a global shortcut alone, and the key at QWERTY's V
// types "k".
class KWinUsDvorak : public KWinSession {
protected:
    KWinUsDvorak()
        : KWinSession("us(dvorak)")
    {
    }
};

// What a user of Plasma sees: the key held through KDE's global shortcuts, and the words pasted into
// the focused native window, the clipboard put back, when an installed desktop file lets the program
// type the paste keys; a copy of the program no desktop file names (a build folder's) only copies.
TEST_F(KWin, HeldKeyPastesWhereADesktopFileAllowsTheFakeInputAndOnlyCopiesElsewhere)
{
    AppRun apps[2];
    // Our desktop file names the second copy; KWin reads it as it starts.
    ASSERT_TRUE(allowFakeInput(apps[1]));
    if (!kwin.start())
        VOXARIA_SKIP("KWin does not start here: " + kwin.failure());
    const QByteArray before = "antes do ditado";
    for (const bool allowed : {false, true}) {
        AppRun& app = apps[allowed];
        ReceivingWindow window;
        const QString route = allowed ? "pasted through data-control and KWin's fake input"
                                      : "KWin does not offer org_kde_kwin_fake_input to " + app.program();
        ASSERT_NO_FATAL_FAILURE(launch(app, window, "ditado pelo kwin", {"dictation key through kglobalaccel", route}));
        ASSERT_TRUE(kwin.copy(before, "text/plain;charset=utf-8"));
        ASSERT_NO_FATAL_FAILURE(dictate(app, {"+100"}, {"-100"}));
        EXPECT_TRUE(app.waitForLog("\"rightOption\" released", 10s)) << app.logText();
        if (allowed) {
            EXPECT_TRUE(window.waitForText("ditado pelo kwin", 30s)) << window.text().toStdString() << app.logText();
            EXPECT_TRUE(TestSupport::waitUntil([&] { return kwin.paste("text/plain") == before; }, 10s));
        } else {
            EXPECT_TRUE(app.waitForLog("Texto copiado", 30s)) << app.logText();
            EXPECT_EQ(kwin.paste("text/plain"), QByteArray("ditado pelo kwin"));
            EXPECT_EQ(window.text(), QString());
        }
        app.stop(); // one Voxaria per session
    }
}

// Where KDE cannot hold Right Alt alone, Ctrl+Alt+Space holds the dictation key, and the paste
// presses the key that types "v" in the session's layout, not the one at QWERTY's V.
TEST_F(KWinUsDvorak, TheChordHoldsTheKeyAndThePasteFindsVInTheLayout)
{
    AppRun app;
    ASSERT_TRUE(allowFakeInput(app));
    if (!kwin.start())
        VOXARIA_SKIP("KWin does not start here: " + kwin.failure());
    ReceivingWindow window;
    ASSERT_NO_FATAL_FAILURE(
        launch(app, window, "ditado em dvorak", {"hold Ctrl+Alt+Espaço", "pasted through data-control and KWin's fake input"}));
    ASSERT_NO_FATAL_FAILURE(dictate(app, {"+29", "+56", "+57"}, {"-57", "-56", "-29"})); // Left Control, Left Alt, Space
    EXPECT_TRUE(window.waitForText("ditado em dvorak", 30s)) << window.text().toStdString() << app.logText();
}

// The servers whose clipboard Voxaria manages through data-control: sway (wlroots' protocol), KWin
// (wlroots' too, as Plasma 5.27 offers it) and a server with the standard ext protocol alone.
enum class ClipboardServer { sway, kwin, ext };

std::string serverName(const ::testing::TestParamInfo<ClipboardServer>& info)
{
    static const char* names[] = {"sway", "KWin", "ext"};
    return names[int(info.param)];
}

class DataControl : public ::testing::TestWithParam<ClipboardServer> {
protected:
    void SetUp() override
    {
        const QString unavailable = GetParam() == ClipboardServer::sway ? HeadlessSway::unavailableReason()
            : GetParam() == ClipboardServer::kwin                       ? HeadlessKWin::unavailableReason()
                                                                        : QString();
        if (!unavailable.isEmpty())
            VOXARIA_SKIP(unavailable);
        if (GetParam() == ClipboardServer::sway)
            server = std::make_unique<HeadlessSway>();
        else if (GetParam() == ClipboardServer::kwin)
            server = std::make_unique<HeadlessKWin>("us");
        else
            server = std::make_unique<ExtDataControlServer>();
        ASSERT_TRUE(server->start()) << server->failure().toStdString();
        client = WaylandClient::connect(server->waylandSocket());
        ASSERT_TRUE(client && client->dataControl());
        EXPECT_STREQ(client->dataControlProtocol(), GetParam() == ClipboardServer::ext ? "ext" : "wlr");
    }

    std::unique_ptr<HeadlessCompositor> server;
    std::shared_ptr<WaylandClient> client;
};

INSTANTIATE_TEST_SUITE_P(, DataControl, ::testing::Values(ClipboardServer::sway, ClipboardServer::kwin, ClipboardServer::ext), serverName);

// The clipboard as Voxaria's own connection sees it: another program's large image read whole,
// several types of ours each handed out, and a newer copy elsewhere ending our ownership.
TEST_P(DataControl, TheClipboardIsReadAndOfferedUnderEveryTypeAndLetGoWhenSomebodyCopies)
{
    DataControlPasteboard board(client);
    ASSERT_TRUE(board.isAvailable());

    const QByteArray large = pngImage(1200);
    ASSERT_TRUE(server->copy(large, "image/png"));
    EXPECT_EQ(board.types(0), QStringList{"image/png"});
    EXPECT_EQ(board.data(0, "image/png"), large);
    EXPECT_FALSE(board.ownsContents());

    Pasteboard::Item item;
    item.setData("text/html", "<b>olá</b>");
    item.setData("image/png", large);
    board.writeItems({item});
    EXPECT_TRUE(board.ownsContents());
    EXPECT_EQ(server->clipboardTypes(), QStringList({"text/html", "image/png"}));
    EXPECT_EQ(server->paste("image/png"), large);
    EXPECT_EQ(server->paste("text/html"), QByteArray("<b>olá</b>"));

    ASSERT_TRUE(server->copy("de outro programa", "text/plain"));
    EXPECT_FALSE(board.ownsContents());
    EXPECT_EQ(board.data(0, "text/plain"), QByteArray("de outro programa"));
}

// Takes the clipboard on a connection of its own, offering `types`, the way another program would,
// and never writes a byte: the pipes readers hand it stay open in `held`. It lets go of all it made
// when it goes.
class SilentOwner {
public:
    SilentOwner(const QString& socket, const QStringList& types, std::vector<int>& held)
        : m_client(WaylandClient::connect(socket))
        , m_source(zwlr_data_control_manager_v1_create_data_source(m_client->dataControl()))
        , m_device(zwlr_data_control_manager_v1_get_data_device(m_client->dataControl(), m_client->seat()))
    {
        static const zwlr_data_control_source_v1_listener keep = {
            .send
            = [](void* fds, zwlr_data_control_source_v1*, const char*, int32_t fd) { static_cast<std::vector<int>*>(fds)->push_back(fd); },
            .cancelled = [](void*, zwlr_data_control_source_v1*) {},
        };
        static const zwlr_data_control_device_v1_listener dropOffers = {
            .data_offer = [](void*, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1*) {},
            .selection = [](void*, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer) { drop(offer); },
            .finished = [](void*, zwlr_data_control_device_v1*) {},
            .primary_selection = [](void*, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer) { drop(offer); },
        };
        zwlr_data_control_source_v1_add_listener(m_source, &keep, &held);
        zwlr_data_control_device_v1_add_listener(m_device, &dropOffers, nullptr);
        for (const QString& type : types)
            zwlr_data_control_source_v1_offer(m_source, type.toUtf8().constData());
        zwlr_data_control_device_v1_set_selection(m_device, m_source);
        m_client->roundtrip();
    }
    ~SilentOwner()
    {
        zwlr_data_control_device_v1_destroy(m_device);
        zwlr_data_control_source_v1_destroy(m_source);
        m_client->roundtrip();
    }
    SilentOwner(const SilentOwner&) = delete;
    SilentOwner& operator=(const SilentOwner&) = delete;

private:
    static void drop(zwlr_data_control_offer_v1* offer)
    {
        if (offer)
            zwlr_data_control_offer_v1_destroy(offer);
    }

    std::shared_ptr<WaylandClient> m_client;
    zwlr_data_control_source_v1* m_source;
    zwlr_data_control_device_v1* m_device;
};

// Such an owner costs the paste one deadline for all its types, the main thread runs meanwhile, and
// the clipboard keeps the dictation rather than being emptied as if the owner had held nothing.
TEST_P(DataControl, AClipboardOwnerThatNeverAnswersDelaysThePasteOnceAndFreezesNothing)
{
    const auto board = std::make_shared<DataControlPasteboard>(client);
    std::vector<int> held;
    const SilentOwner owner(server->waylandSocket(), {"text/plain", "text/html", "image/png"}, held);
    const auto keys = std::make_shared<FakeKeyPoster>();
    int ticks = 0, ticksAtPaste = 0;
    std::optional<QByteArray> pasted;
    keys->onPost = [&](const KeyPoster::KeyEvent&) {
        ticksAtPaste = ticks;
        pasted = server->paste("text/plain");
    };
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, [&] { ++ticks; });
    ticker.start(20);
    TextInserter::insert("ditado apesar do dono mudo", {board, keys, {}});
    ASSERT_TRUE(TestSupport::waitUntil([&] { return pasted.has_value(); }, 10s));
    EXPECT_GT(ticksAtPaste, 40) << "the main thread stood still while the clipboard was saved";
    EXPECT_LT(ticksAtPaste, 125) << "more than one deadline of 1.5 s";
    EXPECT_EQ(pasted, QByteArray("ditado apesar do dono mudo"));
    TestSupport::spin(1s);
    EXPECT_EQ(server->paste("text/plain"), QByteArray("ditado apesar do dono mudo"));
    for (int fd : held)
        ::close(fd);
}

// A clipboard manager that fills an emptied clipboard with its newest item at once (as Klipper does
// by default) never sees the clipboard empty: twenty dictations in a row each paste their own words,
// and the user's copy is back after each.
TEST_P(DataControl, WithAClipboardManagerEveryDictationPastesItsOwnWordsAndTheClipboardComesBack)
{
    QProcess manager;
    manager.setProcessEnvironment(server->clientEnvironment());
    manager.start(QStringLiteral(VOXARIA_HELPER_datacontrolclipboard), {"manager"});
    ASSERT_TRUE(TestSupport::waitUntil([&] { return manager.canReadLine(); }, 10s)) << "the clipboard manager did not start";
    manager.readLine();
    const auto board = std::make_shared<DataControlPasteboard>(client);
    const auto keys = std::make_shared<FakeKeyPoster>();
    std::optional<QByteArray> pasted;
    // What the focused window would paste at the moment the keys go down.
    keys->onPost = [&](const KeyPoster::KeyEvent& event) {
        if (event.keyDown)
            pasted = server->paste("text/plain;charset=utf-8");
    };
    const TextInserter::Target target{board, keys, {50ms, 300ms}};
    for (int run = 1; run <= 20; ++run) {
        SCOPED_TRACE(run);
        const QByteArray before = "antes do ditado " + QByteArray::number(run);
        ASSERT_TRUE(server->copy(before, "text/plain;charset=utf-8"));
        pasted.reset();
        const QString dictated = QStringLiteral("ditado número %1").arg(run);
        TextInserter::insert(dictated, target);
        ASSERT_TRUE(TestSupport::waitUntil([&] { return pasted.has_value(); }, 10s));
        EXPECT_EQ(pasted.value_or("").toStdString(), dictated.toStdString());
        EXPECT_TRUE(TestSupport::waitUntil([&] { return server->paste("text/plain;charset=utf-8") == before; }, 5s))
            << "the clipboard holds " << server->paste("text/plain;charset=utf-8").value_or("nothing").toStdString();
    }
    EXPECT_EQ(manager.readAll().toStdString(), "") << "the clipboard was empty for a moment";
    manager.kill();
    manager.waitForFinished();
}

// Hyprland names its active window on a socket of its own; nothing focused is no application.
TEST(CompositorFrontApplication, HyprlandsActiveWindowIsTheFrontApplication)
{
    QTemporaryDir runtime;
    QDir(runtime.path()).mkpath("hypr/abc");
    QLocalServer hyprland;
    ASSERT_TRUE(hyprland.listen(runtime.filePath("hypr/abc/.socket.sock")));
    QByteArray answer;
    QObject::connect(&hyprland, &QLocalServer::newConnection, [&] {
        QLocalSocket* client = hyprland.nextPendingConnection();
        QObject::connect(client, &QLocalSocket::readyRead, client, [&answer, client] {
            if (client->readAll() == "j/activewindow")
                client->write(answer);
            client->disconnectFromServer();
        });
    });
    QProcessEnvironment session;
    session.insert("HYPRLAND_INSTANCE_SIGNATURE", "abc");
    session.insert("XDG_RUNTIME_DIR", runtime.path());
    const auto front = CompositorFrontApplication::forSession(session);
    ASSERT_TRUE(front);

    std::optional<FrontApplication::WindowClass> found;
    const auto ask = [&](const QByteArray& reply) {
        answer = reply;
        // Asked from a thread of its own: the compositor stand-in answers on this one's event loop.
        std::atomic<bool> answered = false;
        std::thread asking([&] {
            found = front->windowClass();
            answered = true;
        });
        TestSupport::waitUntil([&] { return answered.load(); }, 5s);
        asking.join();
    };
    ask(R"({"class": "kitty", "initialClass": "kitty", "pid": 4242, "title": "~"})");
    EXPECT_EQ(found, (FrontApplication::WindowClass{"kitty", "kitty"}));
    EXPECT_TRUE(found && FrontApplication::isTerminal(*found));
    ask("{}");
    EXPECT_EQ(found, std::nullopt);
}

class Keyboards : public ::testing::Test {
protected:
    // A keyboard that appears in the device folder: a pipe the test writes and never reads.
    int plugIn(const char* name)
    {
        const QByteArray path = QFile::encodeName(folder.filePath(QLatin1String(name)));
        EXPECT_EQ(::mkfifo(path.constData(), 0600), 0);
        return ::open(path.constData(), O_RDWR | O_NONBLOCK);
    }
    static void key(int fd, int code, int value)
    {
        const input_event records[] = {{{1000, 0}, EV_KEY, quint16(code), value}, {{1000, 0}, EV_SYN, SYN_REPORT, 0}};
        EXPECT_EQ(::write(fd, records, sizeof records), ssize_t(sizeof records));
    }
    bool received(size_t count)
    {
        return TestSupport::waitUntil([&] { return events.size() >= count; }, 10s);
    }

    QTemporaryDir folder;
    std::vector<std::pair<int, quint64>> events;
};

TEST_F(Keyboards, EveryKeyboardIsHeardAndOneUnpluggedLetsGoOfItsKeys)
{
    const int first = plugIn("event0");
    EvdevKeyMonitor monitor(folder.path());
    ASSERT_NE(monitor.addMonitor([&](const FlagsChangedEvent& event) { events.emplace_back(event.keyCode, event.modifierFlags); }), 0u);
    key(first, KEY_A, 1); // not a modifier
    key(first, KEY_RIGHTALT, 1);
    key(first, KEY_RIGHTALT, 2); // the key repeating
    key(first, KEY_RIGHTALT, 0);
    ASSERT_TRUE(received(2));

    const int second = plugIn("event1");
    // Plugged in after the monitor started: found when the folder changes, the key waiting in the pipe.
    key(second, KEY_LEFTMETA, 1);
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
