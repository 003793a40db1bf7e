#include "App/Permissions.h"
#include "HistoryFiles.h"
#include "Platform/Fakes/FakeSessionPlatform.h"
#include "Platform/Linux/Audio/InputDevices.h"
#include "Platform/Linux/Desktop/XdgAutostartLoginItem.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Shared/LiveSpeechModel.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QThread>

#include <gtest/gtest.h>

namespace {

// The start-up log's "Permissão…" lines, each marked when it did not come on the main thread.
QStringList permissionLog;

}

// The marks and the start-up log come from the real machine: the harness's microphone, the live
// model (the tests' toy one; it knows no Hebrew) and the X server, each taken away in turn.
TEST(Permissions, TheAlertAndTheStartUpLogNameWhatThisMachineLacks)
{
    if (!TestSupport::hasX11() || !TestSupport::hasPulseAudio())
        VOXARIA_SKIP("needs the harness's X server and PulseAudio");
    QDir().mkpath(QFileInfo(LiveSpeechModel::installedPath()).path());
    QFile::copy(QStringLiteral(VOXARIA_TOY_NEMOTRON_MODEL), LiveSpeechModel::installedPath());
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& message) {
        if (message.startsWith("Permissão"))
            permissionLog.append(message + (QThread::currentThread() == qApp->thread() ? "" : " (off the main thread)"));
    });
    const auto restoreLog = qScopeGuard([] { qInstallMessageHandler(nullptr); });
    const struct {
        QString locale, marks;
        bool wayland = false; // even with an X display (XWayland)
    } cases[] = {{"pt-BR", "✅✅✅"}, {"pt-BR", "❌✅✅"}, {"he-IL", "✅❌✅"}, {"pt-BR", "✅✅❌", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE((c.locale + c.marks).toStdString());
        qputenv("WAYLAND_DISPLAY", c.wayland ? "wayland-0" : "");
        std::optional<TestSupport::NoMicrophone> unplugged;
        if (c.marks.startsWith("❌"))
            unplugged.emplace();
        std::optional<Permissions::Needs> needs;
        permissionLog.clear();
        const LinuxPlatform platform(SessionInfo::current(), [] { return HotKey::rightOption; });
        const Permissions::Checks checks = Permissions::Checks::system(platform, &InputDevices::anyListed);
        Permissions::check(
            c.locale, [&needs](Permissions::Needs found) { needs = found; }, checks);
        Permissions::requestAtLaunch(c.locale, checks);
        ASSERT_TRUE(TestSupport::waitUntil([&] { return needs.has_value(); }));
        TestSupport::spin(std::chrono::milliseconds(300)); // the look-ups run side by side
        const auto mark = [&](int i) { return c.marks.mid(i, 1) == "✅" ? QString("✅ concedida") : QString("❌ pendente"); };
        const Alerts::Alert alert = Permissions::permissionsAlert(*needs, c.locale);
        EXPECT_EQ(alert.informativeText,
            "O Voxaria precisa de três coisas:\n\n1. Microfone — para capturar sua voz " + mark(0)
                + "\n2. Reconhecimento de fala — modelo do motor nativo para o idioma " + c.locale + " " + mark(1)
                + "\n3. Acesso ao teclado (X11) — para detectar a tecla de ditado e inserir o texto " + mark(2)
                + "\n\nSe algo não funcionar, veja a ajuda.");
        const QStringList missing{mark(0).startsWith("❌") ? "Permissão de microfone negada" : "",
            mark(1).startsWith("❌") ? "Permissão de reconhecimento de fala negada" : ""};
        EXPECT_EQ(permissionLog, missing.filter("Permissão"));
    }
    qunsetenv("WAYLAND_DISPLAY");
}

// On Wayland the third line names what watches the key and how the text arrives; a session where
// nothing sees the key, or no engine able to dictate, is explained at start-up.
TEST(Permissions, TheAlertsSayWhatWaylandAndAMissingEngineChange)
{
    const Permissions::WaylandUse wayland{"Wayland (sway/Hyprland)", "compositor bindings + /dev/input", "copiar apenas (cole com Ctrl+V)"};
    EXPECT_EQ(Permissions::permissionsAlert({true, true, true}, "pt-BR", wayland).informativeText.section('\n', 4, 4),
        "3. Acesso ao teclado (Wayland (sway/Hyprland)) — tecla de ditado: compositor bindings + /dev/input; colagem: copiar apenas "
        "(cole com Ctrl+V) ✅ concedida");
    // On GNOME a paragraph says what its question at every start is for, or why the text is only copied.
    FakeSessionPlatform platform;
    const SessionInfo gnome{SessionInfo::Kind::wayland, SessionInfo::Compositor::gnome, true};
    platform.sessionInfo = gnome;
    const auto gnomeNote = [&](SessionPlatform::PasteRoute route) {
        platform.words = LinuxPlatform::wordingFor(gnome, route);
        return Permissions::permissionsAlert({true, true, true}, "pt-BR", Permissions::WaylandUse::of(platform))
            .informativeText.section("\n\n", 2, 2);
    };
    EXPECT_TRUE(gnomeNote(SessionPlatform::PasteRoute::xwayland).contains("a cada início do Voxaria, o GNOME pergunta"));
    EXPECT_TRUE(gnomeNote(SessionPlatform::PasteRoute::copyOnly).contains("a partir da versão 45"));

    const auto noKeySource = [&](SessionInfo session, bool seen) {
        platform.sessionInfo = session;
        platform.source.works = seen;
        platform.words = LinuxPlatform::wordingFor(session, SessionPlatform::PasteRoute::compositor);
        return Permissions::noKeySourceAlert(platform).value_or(Alerts::Alert{}).informativeText;
    };
    EXPECT_TRUE(noKeySource({SessionInfo::Kind::x11}, false).isEmpty() && noKeySource(gnome, true).isEmpty());
    // GNOME 50 has no X11 session to offer; its portal does without the group.
    const QString text = noKeySource(gnome, false);
    EXPECT_TRUE(text.contains("grupo input") && text.contains("portal") && !text.contains("sessão X11")) << text.toStdString();
    EXPECT_TRUE(noKeySource({SessionInfo::Kind::wayland, SessionInfo::Compositor::other}, false).contains("sessão X11"));
    // KWin pastes through its fake input, which is no virtual keyboard.
    noKeySource({SessionInfo::Kind::wayland, SessionInfo::Compositor::kde}, true);
    EXPECT_EQ(platform.wording().pasteRoute, "data-control + entrada sintética do KWin");

    EXPECT_FALSE(Permissions::noEngineAlert(true, false, "pt-BR") || Permissions::noEngineAlert(false, true, "pt-BR"));
    const auto alert = Permissions::noEngineAlert(false, false, "fr-FR").value_or(Alerts::Alert{});
    EXPECT_EQ(alert.messageText + "|" + alert.informativeText,
        "Instale o Whisper para ditar|O Voxaria não encontrou o whisper-cli, e o motor nativo (Nemotron) não tem modelo para o idioma "
        "fr-FR.\n\n"
        "Instale o whisper.cpp da sua distribuição e reinicie o Voxaria, ou baixe o modelo do motor nativo no menu.");
}

// The program run from the build tree finds its help page, and the page loads nothing remote.
TEST(Permissions, TheHelpPageIsBesideTheProgramAndSelfContained)
{
    const QString html
        = QString::fromUtf8(HistoryFiles::read(Permissions::helpPageURL(QFileInfo(VOXARIA_APP_BINARY).absolutePath()).toLocalFile()));
    for (const char* topic :
        {"PulseAudio", "Wayland", "whisper-cli", "~/.local/share/Voxaria/models", "Nemotron", "Iniciar com o sistema", "history.json"})
        EXPECT_TRUE(html.contains(topic)) << topic;
    EXPECT_FALSE(html.contains(QRegularExpression(R"((src=|@import|url\(|<link[^>]*href=)\s*["']?(https?:)?//)")));
    // Installed, the program sits in its own folder beside whisper-cli, two levels below the data.
    EXPECT_EQ(Permissions::helpPageURL("/usr/libexec/voxaria"), QUrl::fromLocalFile("/usr/share/voxaria/help/ajuda.html"));
}

// Launch at login, as real files in the isolated XDG config folder.
TEST(LoginItem, RegisteringWritesTheDesktopEntryUnregisteringRemovesItAndAFailureSaysWhy)
{
    XdgAutostartLoginItem item;
    const QString entry = qEnvironmentVariable("XDG_CONFIG_HOME") + "/autostart/app.voxaria.Voxaria.desktop";
    ASSERT_EQ(XdgAutostartLoginItem::entryPath(), entry);
    EXPECT_FALSE(item.registerItem());
    EXPECT_EQ(item.status(), LoginItem::Status::enabled);
    const QString text = QString::fromUtf8(HistoryFiles::read(entry));
    EXPECT_TRUE(text.contains("\nExec=" + qApp->applicationFilePath() + "\n") && text.contains("\nIcon=app.voxaria.Voxaria\n"))
        << text.toStdString();
    EXPECT_FALSE(item.unregisterItem() || QFile::exists(entry) || item.unregisterItem());
    EXPECT_EQ(item.status(), LoginItem::Status::notRegistered);

    // An entry the user switched off is not enabled; unregistering removes it all the same.
    TestSupport::writeFile(entry, "[Desktop Entry]\nExec=voxaria\nHidden=true\n");
    EXPECT_EQ(item.status(), LoginItem::Status::notRegistered);
    EXPECT_FALSE(item.unregisterItem() || QFile::exists(entry));

    // Plain "voxaria" only when PATH leads to this very program.
    const QString bin = QDir::tempPath() + "/bin";
    QDir().mkpath(bin);
    const QByteArray path = qgetenv("PATH");
    const auto restore = qScopeGuard([&] { qputenv("PATH", path); });
    qputenv("PATH", (bin + ":/usr/bin:/bin").toUtf8());
    QFile::link("/bin/true", bin + "/voxaria");
    EXPECT_EQ(XdgAutostartLoginItem::execCommand(), qApp->applicationFilePath());
    QFile::remove(bin + "/voxaria");
    QFile::link(qApp->applicationFilePath(), bin + "/voxaria");
    EXPECT_EQ(XdgAutostartLoginItem::execCommand(), "voxaria");

    // A folder nobody can write to (immutable, so root cannot either): the reason comes back and
    // the status shows what is really there.
    const QString folder = QFileInfo(entry).absolutePath();
    const auto immutable = [&](bool on) { return QProcess::execute("chattr", {on ? "+i" : "-i", folder}) == 0; };
    for (const bool present : {false, true}) {
        ASSERT_EQ(present ? item.registerItem() : item.unregisterItem(), std::nullopt);
        if (!immutable(true))
            VOXARIA_SKIP("chattr does not work on this file system");
        const auto reason = present ? item.unregisterItem() : item.registerItem();
        immutable(false);
        EXPECT_TRUE(reason && reason->contains(folder)) << (reason ? reason->toStdString() : "no reason");
        EXPECT_EQ(item.status(), present ? LoginItem::Status::enabled : LoginItem::Status::notRegistered);
    }
}
