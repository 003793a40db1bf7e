#pragma once

#include "Platform/KeyPoster.h"
#include "Platform/Pasteboard.h"
#include "Platform/SessionPlatform.h"

#include <QString>

#include <chrono>
#include <functional>
#include <memory>

// Types a finished dictation into the focused application the way a user pastes: the clipboard is
// saved, the text goes on it, a synthetic Command-V (Control-V on Linux) follows, and later the
// clipboard gets back exactly what it held before, unless another program copied something
// meanwhile. Main thread only.
namespace TextInserter {

struct Delays {
    // Lets the clipboard settle before the target is asked to paste.
    std::chrono::milliseconds beforePaste{50};
    // Gives the target time to read the clipboard before it changes again.
    std::chrono::milliseconds beforeRestore{600};
    // The same, for a paste the session holds until the user has answered a consent dialog.
    std::chrono::milliseconds beforeRestoreAfterConsent{20000};
};

// How the text reaches the application. Where no synthetic paste can reach the compositor's own
// windows, the text is only copied: it stays on the clipboard for the user to paste, and nothing is
// put back. GNOME takes a paste through XWayland only once the user has allowed it in a dialog it
// shows at the first paste of every run of the program, and holds the keys until then: that first
// paste leaves the text on the clipboard long enough for the user to answer (`askingConsent`);
// later ones paste as usual.
enum class Mode { paste, askingConsent, copyOnly };

// The session's mode as of now (on GNOME it is known a moment after start-up).
Mode modeOf(const SessionPlatform& platform);

// Where the text goes: the session's clipboard and key poster, or a test's.
struct Target {
    std::shared_ptr<Pasteboard> pasteboard;
    std::shared_ptr<KeyPoster> keyPoster;
    Delays delays;
    Mode mode = Mode::paste;
    // A terminal in front pastes on Control-Shift-V where others paste on Control-V.
    bool terminalInFront = false;

    static Target of(const SessionPlatform& platform);
};

// Returns at once; the paste and the restoration run later on the main thread, once the clipboard's
// contents are saved (a restoration still ahead runs when the application quits). A failed paste
// leaves the clipboard restored all the same. Dictations in quick succession end with the clipboard
// the user had before the first. `onPasted` follows once the paste keys were posted, or the text
// copied. Answers how this text arrives (`askingConsent` only for the first such paste of the run),
// so the caller can tell the user when the text was only copied or waits for the dialog.
Mode insert(const QString& text, const Target& target, std::function<void()> onPasted = {});

}
