#pragma once

#include <QtGlobal>

#include <memory>
#include <optional>

// Synthesises keyboard events for whichever window has the keyboard focus. Keys are named by the
// macOS virtual key codes and modifier flags; each platform translates them. Main thread only.
class KeyPoster {
public:
    static constexpr quint16 virtualKeyV = 9;
    static constexpr quint64 shiftFlag = 0x20000;
    static constexpr quint64 controlFlag = 0x40000;
    static constexpr quint64 optionFlag = 0x80000;
    static constexpr quint64 commandFlag = 0x100000;

    struct KeyEvent {
        quint16 virtualKey = 0;
        bool keyDown = true;
        quint64 flags = 0;
        bool operator==(const KeyEvent&) const = default;
    };

    virtual ~KeyPoster() = default;

    // A key event ready to post, or nothing when this key cannot be synthesised here (no display,
    // no synthetic-input extension, a key the layout lacks).
    virtual std::optional<KeyEvent> makeKeyEvent(quint16 virtualKey, bool keyDown) = 0;
    virtual void post(const KeyEvent& event) = 0;
};
