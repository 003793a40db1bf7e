#pragma once

#include <QString>
#include <QtGlobal>

#include <functional>
#include <memory>
#include <optional>

// When a key moved, in milliseconds of the key source's own clock (the X server's time on Linux).
// The clock has no fixed origin and wraps after 49.7 days: only the difference of two times counts,
// taken modulo 2^32.
using KeyEventTime = quint32;

// One change of the modifier keys, in the macOS virtual key codes and modifier flags the rest of
// the program speaks: the key that went up or down, and the device-independent flags of every
// modifier still held.
struct FlagsChangedEvent {
    quint16 keyCode = 0;
    quint64 modifierFlags = 0;
    // None when the source cannot tell.
    std::optional<KeyEventTime> time;
};

// A source of flags-changed events from every application, ours included. Handlers run on the main
// thread. The source never swallows an event: the key still reaches the application it was typed in.
class KeyMonitor {
public:
    using Handler = std::function<void(const FlagsChangedEvent& event)>;
    // Identifies an installed handler; 0 means none could be installed.
    using Token = quint64;

    virtual ~KeyMonitor() = default;

    // Installs a handler; answers 0 (and logs why) when the platform cannot watch the keys.
    virtual Token addMonitor(Handler handler) = 0;
    // Removes a handler; no call to it happens afterwards. Unknown tokens are ignored.
    virtual void removeMonitor(Token token) = 0;
    // Another dictation key was chosen. Most sources see every key and have nothing to do; one that
    // binds the key itself binds the new one, without ever leaving the handlers unheard.
    virtual void dictationKeyChanged() { }
};
