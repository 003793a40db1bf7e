#include "HeadlessSway.h"

#include "Platform/Linux/Wayland/CompositorFrontApplication.h"

#include "TestSupport.h"

#include <QFile>

#include <pwd.h>
#include <unistd.h>

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
    const passwd* self = ::getpwuid(::geteuid());
    // Xwayland lets in only its own user: the test's user is let in too, and only then is the display
    // written down, so a display in that file answers.
    const QStringList config
        = QStringList{"xwayland force",
              QStringLiteral("exec sh -c 'xhost +si:localuser:%1 >/dev/null && echo \"$DISPLAY\" > %2.new && mv %2.new %2'")
                  .arg(self ? QString::fromLocal8Bit(self->pw_name) : QString::number(::geteuid()), displayFile),
              QStringLiteral("bindsym --no-repeat %1 exec %2 --press").arg(m_dictationKey, voxaria),
              QStringLiteral("bindsym --release %1 exec %2 --release").arg(m_dictationKey, voxaria)}
        + m_extraConfig;
    if (!QFile::copy(QStringLiteral(VOXARIA_APP_BINARY), voxaria)
        || !TestSupport::writeFile(filePath("config"), config.join(QLatin1Char('\n')).toUtf8() + '\n'))
        return fail("cannot prepare sway's folder " + folder());

    QProcessEnvironment environment = compositorEnvironment();
    environment.insert("WLR_BACKENDS", "headless");
    environment.insert("WLR_LIBINPUT_NO_DEVICES", "1");
    environment.insert("WLR_RENDERER", "pixman");
    // Xwayland ends with its compositor; what the bindings started ends on its own.
    const auto up = [&] { return !(m_swaySocket = runtimeEntry("sway-ipc.*.sock")).isEmpty() && QFile::exists(displayFile); };
    if (!launch({"sway", "-c", filePath("config")}, environment, up, "its IPC socket and X display"))
        return false;
    m_xDisplay = QString::fromUtf8(DesktopApps::readAll(displayFile)).trimmed();
    return run({"xdpyinfo", "-display", m_xDisplay}) || fail(QStringLiteral("Xwayland on display %1 does not answer").arg(m_xDisplay));
}

QProcessEnvironment HeadlessSway::sessionVariables() const
{
    QProcessEnvironment environment = waylandSession("sway");
    environment.insert("DISPLAY", m_xDisplay);
    environment.insert("SWAYSOCK", m_swaySocket);
    return environment;
}

QString HeadlessSway::focusedApplication()
{
    // Asked the way Voxaria asks before a paste.
    const auto front = CompositorFrontApplication(CompositorFrontApplication::Protocol::sway, m_swaySocket).windowClass();
    return front ? front->className : QString();
}

bool HeadlessSway::waitForFocus(const QString& application, std::chrono::milliseconds timeout)
{
    return TestSupport::waitUntil([&] { return focusedApplication() == application; }, timeout);
}
