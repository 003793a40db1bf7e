#include "HeadlessSway.h"

#include "Platform/Linux/Wayland/CompositorFrontApplication.h"

#include "TestSupport.h"

#include <QDir>
#include <QFile>

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
    return HeadlessCompositor::unavailableReason({"sway", "Xwayland", "wtype", "wl-copy", "wl-paste", "swaymsg", "xhost", "xdpyinfo"});
}

HeadlessSway::HeadlessSway(const QStringList& extraConfig, const QString& dictationKey)
    : HeadlessCompositor("sway")
    , m_extraConfig(extraConfig)
    , m_dictationKey(dictationKey)
{
}

bool HeadlessSway::start()
{
    if (!prepareFolder())
        return false;
    const QString displayFile = filePath("xdisplay");
    // A copy the sway user can reach wherever the build lies (a clone under /root, say).
    const QString voxaria = filePath("voxaria");
    // Xwayland lets in only its own user: the test (root) is let in too, and only then is the
    // display written down, so a display in that file answers.
    QStringList config{
        "xwayland force",
        QStringLiteral("exec sh -c 'xhost +si:localuser:%1 >/dev/null && echo \"$DISPLAY\" > %2.new && mv %2.new %2'")
            .arg(userName(::geteuid()), displayFile),
        QStringLiteral("bindsym --no-repeat %1 exec %2 --press").arg(m_dictationKey, voxaria),
        QStringLiteral("bindsym --release %1 exec %2 --release").arg(m_dictationKey, voxaria),
    };
    config << m_extraConfig;
    const QString configFile = filePath("config");
    if (!QFile::copy(QStringLiteral(VOXARIA_APP_BINARY), voxaria)
        || !TestSupport::writeFile(configFile, config.join(QLatin1Char('\n')).toUtf8() + '\n')
        || !TestSupport::handOver(folder(), uid(), gid()))
        return fail("cannot prepare sway's folder " + folder());

    QProcessEnvironment environment = compositorEnvironment();
    environment.insert("WLR_BACKENDS", "headless");
    environment.insert("WLR_LIBINPUT_NO_DEVICES", "1");
    environment.insert("WLR_RENDERER", "pixman");
    m_compositor.setProcessEnvironment(environment);
    TestSupport::startAs(m_compositor, uid(), gid());
    // Xwayland ends with its compositor; what the bindings started ends on its own.
    m_compositor.start("sway", {"-c", configFile});
    if (!m_compositor.waitForStarted(10000))
        return fail("sway did not start: " + m_compositor.errorString());

    const bool up = TestSupport::waitUntil(
        [&] {
            m_swaySocket = firstEntry(runtimeFolder(), "sway-ipc.*.sock");
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
    if (!run("xdpyinfo", {"-display", m_xDisplay}))
        return fail(QStringLiteral("Xwayland on display %1 does not answer").arg(m_xDisplay));
    return true;
}

QProcessEnvironment HeadlessSway::sessionVariables() const
{
    QProcessEnvironment environment = waylandSession("sway");
    environment.insert("DISPLAY", m_xDisplay);
    environment.insert("SWAYSOCK", m_swaySocket);
    return environment;
}

bool HeadlessSway::type(const QStringList& wtypeArguments)
{
    return run("wtype", wtypeArguments).has_value();
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
