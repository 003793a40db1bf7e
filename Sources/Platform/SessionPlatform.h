#pragma once

#include "Platform/AccessibilityTrust.h"
#include "Platform/FrontApplication.h"
#include "Platform/KeyMonitor.h"
#include "Platform/KeyPoster.h"
#include "Platform/Pasteboard.h"
#include "Platform/SessionInfo.h"

#include <QString>

#include <functional>
#include <memory>

// The backends of the graphical session Voxaria runs in, chosen once at start-up and handed down
// from there. Everything that depends on the session (which key source, which clipboard, how the
// text reaches the application in front) is answered here, so no component has to know display
// servers or compositors by name.
class SessionPlatform {
public:
    // How dictated text reaches the application in front: pasted through the X11 clipboard and a
    // synthetic key (an X session, or XWayland on GNOME), through the compositor's own clipboard and
    // a virtual keyboard, or only copied for the user to paste.
    enum class PasteRoute { x11, xwayland, compositor, copyOnly };

    // The source that watches the dictation key, as it was logged (e.g. "compositor bindings +
    // /dev/input"), and whether it can see the key at all in this session.
    struct KeySource {
        QString description;
        bool works = false;
        // A key combination, as the user reads it, that a desktop service holds for the dictation key
        // where it cannot hold the key alone (e.g. "Ctrl+Alt+Espaço"); empty where there is none.
        QString chord = {};
    };

    // The session's ways, as the user reads them.
    struct Wording {
        // How dictated text arrives, e.g. "wlr data-control + teclado virtual".
        QString pasteRoute;
        // A paragraph of its own about that route, or empty (GNOME: its question at every start, or
        // why the text is only copied).
        QString pasteNote;
        // Where nothing can see the dictation key: what the user can do besides joining the input
        // group, said between that advice and the warning about the group.
        QString keySourceRemedy;
    };

    virtual ~SessionPlatform() = default;

    virtual SessionInfo session() const = 0;
    virtual KeySource keySource() const = 0;
    // Known at start-up, except on GNOME: copy only until the shell has said its version, a moment later.
    virtual PasteRoute pasteRoute() const = 0;
    // For the current paste route.
    virtual Wording wording() const = 0;

    // The key source, handed over once (later calls answer nothing).
    virtual std::unique_ptr<KeyMonitor> takeKeyMonitor() = 0;
    // One clipboard and one key poster for the program's life.
    virtual std::shared_ptr<Pasteboard> pasteboard() const = 0;
    virtual std::shared_ptr<KeyPoster> keyPoster() const = 0;
    virtual std::unique_ptr<FrontApplication> makeFrontApplication() const = 0;
    virtual std::unique_ptr<AccessibilityTrust> makeAccessibilityTrust() const = 0;
    // Called by the copy that holds the single-instance lock: `show` runs, on the main thread,
    // each time the user starts the program again (that second copy then ends).
    virtual void onSecondLaunch(std::function<void()> show) = 0;

    bool onlyCopies() const { return pasteRoute() == PasteRoute::copyOnly; }
};
