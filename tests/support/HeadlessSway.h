#pragma once

#include "HeadlessCompositor.h"

#include <chrono>

// A sway compositor with no screen (wlroots' headless backend) and its Xwayland, in a folder of its
// own, with the dictation key bound to `voxaria --press` / `--release` as a user would bind it.
// Sway refuses to run as root, so a root test runs it as the "nobody" user; the Voxaria under test
// must then run as that user too, since its key socket answers only its own user.
class HeadlessSway final : public HeadlessCompositor {
public:
    // Empty when sway can run here; otherwise why not (a program missing, no user to run it as).
    static QString unavailableReason();
    static bool available() { return unavailableReason().isEmpty(); }

    // `extraConfig`: more lines of sway configuration, after the dictation key bindings.
    explicit HeadlessSway(const QStringList& extraConfig = {}, const QString& dictationKey = "Alt_R");

    // Starts sway and waits until its Wayland socket, its IPC socket and Xwayland answer.
    bool start() override;

    QString xDisplay() const { return m_xDisplay; }
    QString swaySocket() const { return m_swaySocket; }
    // WAYLAND_DISPLAY, DISPLAY, SWAYSOCK, XDG_RUNTIME_DIR, XDG_SESSION_TYPE and XDG_CURRENT_DESKTOP.
    QProcessEnvironment sessionVariables() const override;

    // Runs wtype with these arguments (e.g. {"-P", "Alt_R", "-s", "800", "-p", "Alt_R"}) to its end.
    // A Qt window native on Wayland loses the first key of each new wtype unless it waits a moment
    // for its keymap: start text with {"-s", "300", ...}.
    bool type(const QStringList& wtypeArguments);

    // The app_id (Wayland) or class (Xwayland) of the window with the keyboard focus, empty if none.
    QString focusedApplication();
    bool waitForFocus(const QString& application, std::chrono::milliseconds timeout = std::chrono::seconds(10));

private:
    QStringList m_extraConfig;
    QString m_dictationKey;
    QString m_xDisplay, m_swaySocket;
};
