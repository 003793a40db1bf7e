#include "HeadlessSway.h"

#include "Platform/Linux/Wayland/CompositorFrontApplication.h"

#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <pwd.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

QString userName(uid_t uid)
{
    const passwd* entry = ::getpwuid(uid);
    return entry ? QString::fromLocal8Bit(entry->pw_name) : QString::number(uid);
}

QString firstEntry(const QString& folder, const QString& pattern)
{
    const QStringList found = QDir(folder).entryList({pattern}, QDir::System | QDir::Files);
    return found.isEmpty() ? QString() : folder + QLatin1Char('/') + found.first();
}

}

QString HeadlessSway::unavailableReason()
{
    for (const char* program : {"sway", "Xwayland", "wtype", "wl-copy", "wl-paste", "swaymsg", "xhost", "xdpyinfo"}) {
        if (QStandardPaths::findExecutable(QLatin1String(program)).isEmpty())
            return QStringLiteral("%1 is not installed (scripts/install-deps.sh installs it)").arg(QLatin1String(program));
    }
    return userUnavailableReason();
}

HeadlessSway::HeadlessSway(const QStringList& extraConfig, const QString& dictationKey)
    : HeadlessCompositor(QStringLiteral("sway"))
    , m_extraConfig(extraConfig)
    , m_dictationKey(dictationKey)
{
}

bool HeadlessSway::start()
{
    if (!prepareFolder())
        return false;
    const QString displayFile = filePath(QStringLiteral("xdisplay"));
    // A copy the sway user can reach wherever the build lies (a clone under /root, say).
    const QString voxaria = filePath(QStringLiteral("voxaria"));
    // Xwayland lets in only its own user: the test (root) is let in too, and only then is the
    // display written down, so a display in that file answers.
    QStringList config{
        QStringLiteral("xwayland force"),
        QStringLiteral("exec sh -c 'xhost +si:localuser:%1 >/dev/null && echo \"$DISPLAY\" > %2.new && mv %2.new %2'")
            .arg(userName(::geteuid()), displayFile),
        QStringLiteral("bindsym --no-repeat %1 exec %2 --press").arg(m_dictationKey, voxaria),
        QStringLiteral("bindsym --release %1 exec %2 --release").arg(m_dictationKey, voxaria),
    };
    config << m_extraConfig;
    const QString configFile = filePath(QStringLiteral("config"));
    if (!QFile::copy(QStringLiteral(VOXARIA_APP_BINARY), voxaria)
        || !TestSupport::writeFile(configFile, config.join(QLatin1Char('\n')).toUtf8() + '\n')
        || !TestSupport::handOver(folder(), uid(), gid()))
        return fail(QStringLiteral("cannot prepare sway's folder ") + folder());

    QProcessEnvironment environment;
    environment.insert(QStringLiteral("HOME"), filePath(QStringLiteral("home")));
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtimeFolder());
    environment.insert(QStringLiteral("PATH"), qEnvironmentVariable("PATH", QStringLiteral("/usr/bin:/bin")));
    environment.insert(QStringLiteral("LANG"), QStringLiteral("C.UTF-8"));
    environment.insert(QStringLiteral("WLR_BACKENDS"), QStringLiteral("headless"));
    environment.insert(QStringLiteral("WLR_LIBINPUT_NO_DEVICES"), QStringLiteral("1"));
    environment.insert(QStringLiteral("WLR_RENDERER"), QStringLiteral("pixman"));
    m_compositor.setProcessEnvironment(environment);
    TestSupport::startAs(m_compositor, uid(), gid());
    // Xwayland ends with its compositor; what the bindings started ends on its own.
    m_compositor.start(QStringLiteral("sway"), {QStringLiteral("-c"), configFile});
    if (!m_compositor.waitForStarted(10000))
        return fail(QStringLiteral("sway did not start: ") + m_compositor.errorString());

    const bool up = TestSupport::waitUntil(
        [&] {
            m_swaySocket = firstEntry(runtimeFolder(), QStringLiteral("sway-ipc.*.sock"));
            return m_compositor.state() == QProcess::Running && findWaylandSocket() && !m_swaySocket.isEmpty()
                && QFile::exists(displayFile);
        },
        60s);
    if (!up)
        return fail(QStringLiteral("sway (state %1) did not offer its Wayland socket, IPC socket and X display within 60 s")
                        .arg(m_compositor.state()));
    QFile file(displayFile);
    file.open(QIODevice::ReadOnly);
    m_xDisplay = QString::fromUtf8(file.readAll()).trimmed();
    if (!run(QStringLiteral("xdpyinfo"), {QStringLiteral("-display"), m_xDisplay}))
        return fail(QStringLiteral("Xwayland on display %1 does not answer").arg(m_xDisplay));
    return true;
}

QProcessEnvironment HeadlessSway::sessionVariables() const
{
    QProcessEnvironment environment;
    environment.insert(QStringLiteral("WAYLAND_DISPLAY"), waylandSocket());
    environment.insert(QStringLiteral("DISPLAY"), m_xDisplay);
    environment.insert(QStringLiteral("SWAYSOCK"), m_swaySocket);
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtimeFolder());
    environment.insert(QStringLiteral("XDG_SESSION_TYPE"), QStringLiteral("wayland"));
    environment.insert(QStringLiteral("XDG_CURRENT_DESKTOP"), QStringLiteral("sway"));
    return environment;
}

bool HeadlessSway::type(const QStringList& wtypeArguments)
{
    return run(QStringLiteral("wtype"), wtypeArguments).has_value();
}

QString HeadlessSway::focusedApplication()
{
    // Asked the way Voxaria asks before a paste.
    const auto front = CompositorFrontApplication(CompositorFrontApplication::Protocol::sway, swaySocket()).windowClass();
    return front ? front->className : QString();
}

bool HeadlessSway::waitForFocus(const QString& application, std::chrono::milliseconds timeout)
{
    return TestSupport::waitUntil([&] { return focusedApplication() == application; }, timeout);
}
