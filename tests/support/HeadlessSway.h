#pragma once

#include "HeadlessCompositor.h"

#include <chrono>

// A sway compositor with no screen (wlroots' headless backend) and its Xwayland, with the dictation
// key bound to `voxaria --press` / `--release` as a user would bind it. Sway refuses to run as root,
// so a root test runs it as "nobody", and the Voxaria under test must run as that user too: its key
// socket answers only its own user.
class HeadlessSway final : public HeadlessCompositor {
public:
    static QString unavailableReason(); // empty when sway can run here
    static bool available() { return unavailableReason().isEmpty(); }

    // `extraConfig`: more lines of sway configuration, after the dictation key bindings.
    explicit HeadlessSway(const QStringList& extraConfig = {}, const QString& dictationKey = "Alt_R");

    // Starts sway and waits until its Wayland socket, its IPC socket and Xwayland answer.
    bool start() override;
    // WAYLAND_DISPLAY, DISPLAY, SWAYSOCK, XDG_RUNTIME_DIR, XDG_SESSION_TYPE and XDG_CURRENT_DESKTOP.
    QProcessEnvironment sessionVariables() const override;

    // Runs wtype with these arguments (e.g. {"-P", "Alt_R", "-s", "800", "-p", "Alt_R"}) to its end.
    // A Qt window native on Wayland loses the first key of each new wtype unless it waits a moment
    // for its keymap: start text with {"-s", "300", ...}.
    bool type(const QStringList& wtypeArguments) { return run(QStringList{"wtype"} + wtypeArguments).has_value(); }

    // The app_id (Wayland) or class (Xwayland) of the window with the keyboard focus, empty if none.
    QString focusedApplication();
    bool waitForFocus(const QString& application, std::chrono::milliseconds timeout = std::chrono::seconds(10));

private:
    QStringList m_extraConfig;
    QString m_dictationKey;
    QString m_xDisplay, m_swaySocket;
};
