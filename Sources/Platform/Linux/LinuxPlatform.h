#pragma once

#include "Platform/Linux/Input/CommandSocket.h"
#include "Platform/SessionPlatform.h"
#include "Shared/Preferences/HotKey.h"

#include <QObject>

#include <functional>
#include <memory>
#include <optional>

class WaylandClient;

// Where every backend of a Linux session is chosen, once, when the program starts: X11 wherever it
// can, and on Wayland whatever the compositor offers. Built by main and handed down; nothing else
// decides by display server or compositor.
class LinuxPlatform final : public SessionPlatform {
public:
    // `dictationKey` tells compositor bindings, which only say "pressed", which key they stand for.
    LinuxPlatform(const SessionInfo& session, std::function<HotKey()> dictationKey);
    ~LinuxPlatform() override;

    // Runs `ready`, later on the event loop, once the key source is chosen: on GNOME that waits for
    // the desktop portal to say whether it binds shortcuts, without the main thread waiting.
    void whenReady(std::function<void()> ready);

    SessionInfo session() const override { return m_session; }
    KeySource keySource() const override { return m_keySource; }
    PasteRoute pasteRoute() const override { return m_pasteRoute; }
    Wording wording() const override { return wordingFor(m_session, m_pasteRoute); }
    std::unique_ptr<KeyMonitor> takeKeyMonitor() override;
    std::shared_ptr<Pasteboard> pasteboard() const override { return m_pasteboard; }
    std::shared_ptr<KeyPoster> keyPoster() const override { return m_keyPoster; }
    std::unique_ptr<FrontApplication> makeFrontApplication() const override;
    std::unique_ptr<AccessibilityTrust> makeAccessibilityTrust() const override;
    void onSecondLaunch(std::function<void()> show) override;

    // How a session's text arrives: X11 pastes; on Wayland, wlroots compositors take a paste from a
    // virtual keyboard, KWin from its fake input (for an authorised program), and GNOME from
    // version 45 (`gnomeShellMajor`, nothing when unknown) forwards the X11 clipboard and an XTEST
    // paste to its own windows, so these paste when `canSynthesisePaste` (asked only there) says
    // so; the others only copy.
    static PasteRoute pasteRouteFor(
        const SessionInfo& session, std::optional<int> gnomeShellMajor, const std::function<bool()>& canSynthesisePaste);

    // What the user reads of a session whose text takes `route`.
    static Wording wordingFor(const SessionInfo& session, PasteRoute route);

    // Before the application object exists: on a Wayland session with XWayland, the program's
    // windows go through XWayland, unless the user chose a Qt platform.
    static void preferXWaylandForWindows(const SessionInfo& session);

    // From a short-lived copy of the program (started by a compositor key binding, or by the user
    // while a copy runs): hands a press or release of the dictation key, or a request to show
    // itself, to the running program. False, with the reason, when none takes it.
    static bool sendToRunningProgram(CommandSocket::Command command, QString* error);

private:
    void chooseKeySource(std::function<HotKey()> dictationKey, bool portalShortcuts);
    void chooseClipboardAndKeys();
    void choosePasteRoute(std::optional<int> gnomeShellMajor);
    static void logMissingFakeInput();

    SessionInfo m_session;
    // Listened on once this copy holds the single-instance lock.
    std::shared_ptr<CommandSocket> m_commands;
    std::shared_ptr<WaylandClient> m_wayland;
    std::unique_ptr<KeyMonitor> m_keyMonitor;
    KeySource m_keySource;
    std::shared_ptr<Pasteboard> m_pasteboard;
    std::shared_ptr<KeyPoster> m_keyPoster;
    PasteRoute m_pasteRoute = PasteRoute::x11;
    bool m_ready = false;
    std::function<void()> m_whenReady;
    // Owns the questions to GNOME Shell and the portal: their answers are dropped with the platform.
    QObject m_replies;
};
