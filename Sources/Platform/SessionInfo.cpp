#include "Platform/SessionInfo.h"

namespace {

bool isSet(const QProcessEnvironment& environment, const char* name)
{
    return !environment.value(QLatin1String(name)).isEmpty();
}

// XDG_CURRENT_DESKTOP is a colon-separated list such as "ubuntu:GNOME" or "KDE".
bool desktopIs(const QProcessEnvironment& environment, QLatin1String name)
{
    const QStringList desktops = environment.value(QStringLiteral("XDG_CURRENT_DESKTOP")).split(QLatin1Char(':'));
    return desktops.contains(name, Qt::CaseInsensitive);
}

SessionInfo::Compositor compositorOf(const QProcessEnvironment& environment)
{
    // The compositors set these for their own IPC; they are the surest sign of sway and Hyprland.
    if (isSet(environment, "SWAYSOCK") || isSet(environment, "HYPRLAND_INSTANCE_SIGNATURE") || desktopIs(environment, QLatin1String("sway"))
        || desktopIs(environment, QLatin1String("Hyprland")))
        return SessionInfo::Compositor::wlroots;
    if (desktopIs(environment, QLatin1String("KDE")))
        return SessionInfo::Compositor::kde;
    if (desktopIs(environment, QLatin1String("GNOME")))
        return SessionInfo::Compositor::gnome;
    return SessionInfo::Compositor::other;
}

}

SessionInfo SessionInfo::fromEnvironment(const QProcessEnvironment& environment)
{
    SessionInfo session;
    session.hasXDisplay = isSet(environment, "DISPLAY");
    // A session that calls itself X11 is X11 even when a stray WAYLAND_DISPLAY was inherited; a
    // Wayland session type without a Wayland display to reach leaves only the X display, if any.
    const bool wayland
        = isSet(environment, "WAYLAND_DISPLAY") && environment.value(QStringLiteral("XDG_SESSION_TYPE")) != QLatin1String("x11");
    if (wayland) {
        session.kind = Kind::wayland;
        session.compositor = compositorOf(environment);
    } else if (session.hasXDisplay) {
        session.kind = Kind::x11;
    }
    return session;
}

SessionInfo SessionInfo::current()
{
    return fromEnvironment(QProcessEnvironment::systemEnvironment());
}

QString SessionInfo::description() const
{
    switch (kind) {
    case Kind::none: return QStringLiteral("sem sessão gráfica");
    case Kind::x11: return QStringLiteral("X11");
    case Kind::wayland: break;
    }
    switch (compositor) {
    case Compositor::wlroots: return QStringLiteral("Wayland (sway/Hyprland)");
    case Compositor::kde: return QStringLiteral("Wayland (KDE Plasma)");
    case Compositor::gnome: return QStringLiteral("Wayland (GNOME)");
    default: return QStringLiteral("Wayland");
    }
}
