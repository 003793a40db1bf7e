#include "HeadlessKWin.h"

#include "TestSupport.h"

#include <QFile>
#include <QStandardPaths>

#include <csignal>

using namespace std::chrono_literals;

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
    QFile pidFile(filePath("kwin.pid"));
    if (m_compositor.state() != QProcess::NotRunning && pidFile.open(QIODevice::ReadOnly)) {
        if (const int pid = pidFile.readAll().trimmed().toInt(); pid > 0)
            ::kill(pid, SIGTERM);
        m_compositor.waitForFinished(5000);
    }
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
                + "\nX-KDE-Wayland-Interfaces=org_kde_kwin_fake_input\n")
        || !TestSupport::handOver(folder(), uid(), gid()))
        return fail("cannot prepare KWin's folder " + folder());

    QProcessEnvironment environment = compositorEnvironment();
    environment.insert("XDG_DATA_DIRS", filePath("share") + ":/usr/local/share:/usr/share");
    m_compositor.setProcessEnvironment(environment);
    TestSupport::startAs(m_compositor, uid(), gid());
    // The bus address is written down for the session's programs, and KWin's process id for the end.
    m_compositor.start("dbus-run-session",
        {"--", "sh", "-c",
            QStringLiteral("echo \"$DBUS_SESSION_BUS_ADDRESS\" > \"$0.new\" && mv \"$0.new\" \"$0\" && echo $$ > \"$1\" && "
                           "exec \"$2\" --virtual --socket wayland-0 --width 1024 --height 768"),
            busFile, filePath("kwin.pid"), kwin});
    if (!m_compositor.waitForStarted(10000))
        return fail("dbus-run-session did not start: " + m_compositor.errorString());

    const bool up = TestSupport::waitUntil(
        [&] {
            QFile bus(busFile);
            if (m_busAddress.isEmpty() && bus.open(QIODevice::ReadOnly))
                m_busAddress = QString::fromUtf8(bus.readAll()).trimmed();
            return m_compositor.state() == QProcess::Running && findWaylandSocket() && !m_busAddress.isEmpty()
                && run("dbus-send",
                    {"--session", "--print-reply", "--dest=org.freedesktop.DBus", "/", "org.freedesktop.DBus.NameHasOwner",
                        "string:org.kde.kglobalaccel"},
                    true)
                       .value_or(QByteArray())
                       .contains("boolean true");
        },
        60s);
    if (!up)
        return fail(
            QStringLiteral("KWin (state %1) did not offer its Wayland socket and kglobalaccel within 60 s").arg(m_compositor.state()));
    return true;
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
    const QString path = filePath("share/applications/" + fileName);
    return TestSupport::writeFile(path, desktopEntry) && TestSupport::handOver(filePath("share"), uid(), gid());
}

bool HeadlessKWin::pressKeys(const QStringList& steps)
{
    return run(filePath("fakeinputkeys"), steps, true).has_value();
}
