#pragma once

#include <QProcessEnvironment>
#include <QString>

// The graphical session Voxaria runs in, as its environment tells: which display servers it can
// reach and, on Wayland, which compositor family draws it. Each family offers different ways to see
// the dictation key, so the key monitor is chosen from this.
struct SessionInfo {
    enum class Kind { none, x11, wayland };
    enum class Compositor { none, wlroots, kde, gnome, other };

    Kind kind = Kind::none;
    Compositor compositor = Compositor::none;
    // An X display is reachable: the X session itself, or XWayland beside a compositor.
    bool hasXDisplay = false;

    // Read from the variables alone; nothing is connected to.
    static SessionInfo fromEnvironment(const QProcessEnvironment& environment);
    static SessionInfo current();

    bool hasDisplay() const { return kind != Kind::none; }
    // For the log and the permissions alert, e.g. "Wayland (sway/Hyprland)".
    QString description() const;
};
