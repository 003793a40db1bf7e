#include "HeadlessKWin.h"

#include "TestSupport.h"

#include <QFile>
#include <QStandardPaths>

#include <csignal>

QString HeadlessKWin::unavailableReason()
{
    return HeadlessCompositor::unavailableReason({"kwin_wayland", "dbus-run-session", "dbus-send", "wl-copy", "wl-paste"});
}

HeadlessKWin::HeadlessKWin(const QString& keyboardLayout)
    : HeadlessCompositor("kwin")
    , m_keyboardLayout(keyboardLayout)
{
}

HeadlessKWin::~HeadlessKWin()
{
    // Ending KWin ends the session: dbus-run-session then stops the bus.
    const int pid = DesktopApps::readAll(filePath("kwin.pid")).trimmed().toInt();
    if (m_compositor.state() != QProcess::NotRunning && pid > 0 && ::kill(pid, SIGTERM) == 0)
        m_compositor.waitForFinished(5000);
}

bool HeadlessKWin::start()
{
    if (!prepareFolder())
        return false;
    const QString kwin = filePath("kwin_wayland");
    const QString keys = filePath("fakeinputkeys");
    const QString busFile = filePath("bus");
    const QString layout = m_keyboardLayout.section(QLatin1Char('('), 0, 0);
    const QString variant = m_keyboardLayout.section(QLatin1Char('('), 1).remove(QLatin1Char(')'));
    if (!QFile::copy(QStandardPaths::findExecutable("kwin_wayland"), kwin)
        || !QFile::copy(QStringLiteral(VOXARIA_HELPER_fakeinputkeys), keys)
        || !TestSupport::writeFile(filePath("home/.config/kxkbrc"),
            QStringLiteral("[Layout]\nLayoutList=%1\nVariantList=%2\nUse=true\n").arg(layout, variant).toUtf8())
        // Plasma shows a tray, this KWin alone does not: the program's window about the missing tray
        // would then take the focus from the window dictated into, as a native Wayland window cannot
        // decline it. A window rule keeps it out of the focus, as the README's no_focus does on sway.
        || !TestSupport::writeFile(filePath("home/.config/kwinrulesrc"),
            QStringLiteral("[General]\ncount=1\nrules=1\n\n[1]\nDescription=Voxaria\nwmclass=app.voxaria.Voxaria\nwmclassmatch=1\n"
                           "title=O Voxaria está em execução\ntitlematch=1\nacceptfocus=false\nacceptfocusrule=2\n")
                .toUtf8())
        || !installApplication("fakeinputkeys.desktop",
            "[Desktop Entry]\nType=Application\nName=fakeinputkeys\nNoDisplay=true\nExec=" + keys.toUtf8()
                + "\nX-KDE-Wayland-Interfaces=org_kde_kwin_fake_input\n"))
        return fail("cannot prepare KWin's folder " + folder());

    QProcessEnvironment environment = compositorEnvironment();
    environment.insert("XDG_DATA_DIRS", filePath("share") + ":/usr/local/share:/usr/share");
    // The bus address is written down for the session's programs, and KWin's process id for the end.
    const QStringList command{"dbus-run-session", "--", "sh", "-c",
        QStringLiteral("echo \"$DBUS_SESSION_BUS_ADDRESS\" > \"$0.new\" && mv \"$0.new\" \"$0\" && echo $$ > \"$1\" && "
                       "exec \"$2\" --virtual --socket wayland-0 --width 1024 --height 768"),
        busFile, filePath("kwin.pid"), kwin};
    const auto up = [&] {
        if (m_busAddress.isEmpty())
            m_busAddress = QString::fromUtf8(DesktopApps::readAll(busFile)).trimmed();
        return !m_busAddress.isEmpty()
            && run({"dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus", "/", "org.freedesktop.DBus.NameHasOwner",
                       "string:org.kde.kglobalaccel"},
                true)
                   .value_or(QByteArray())
                   .contains("boolean true");
    };
    return launch(command, environment, up, "kglobalaccel");
}

QProcessEnvironment HeadlessKWin::sessionVariables() const
{
    QProcessEnvironment environment = waylandSession("KDE");
    environment.insert("DISPLAY", QString());
    environment.insert("DBUS_SESSION_BUS_ADDRESS", m_busAddress);
    return environment;
}

bool HeadlessKWin::installApplication(const QString& fileName, const QByteArray& desktopEntry)
{
    return TestSupport::writeFile(filePath("share/applications/" + fileName), desktopEntry)
        && TestSupport::handOver(filePath("share"), uid(), gid());
}
