#pragma once

#include "Platform/KeyMonitor.h"

#include <functional>
#include <map>
#include <optional>

// The macOS virtual key code and modifier flag the rest of the program uses for one modifier key.
struct ModifierKey {
    quint16 virtualKeyCode;
    quint64 flag;
};

// The modifier keys we track, by X keycode of the evdev layout every X server uses today (the
// kernel's key code + 8).
std::optional<ModifierKey> modifierForX11Keycode(int keycode);

// The device-independent flags of a set of held X keycodes.
template <typename Keycodes> quint64 flagsOfHeldKeycodes(const Keycodes& keycodes)
{
    quint64 flags = 0;
    for (int keycode : keycodes) {
        if (const std::optional<ModifierKey> key = modifierForX11Keycode(keycode))
            flags |= key->flag;
    }
    return flags;
}

// The handlers installed on one key source, which watches only while it has any: `start` begins
// watching when the first handler comes (false: it cannot, and the handler is refused), `stop`
// ends it when the last one goes.
class KeyHandlerList {
public:
    KeyHandlerList(std::function<bool()> start, std::function<void()> stop);

    KeyMonitor::Token add(KeyMonitor::Handler handler);
    void remove(KeyMonitor::Token token);
    // Handlers may add or remove monitors while being called: the ones installed now are called,
    // skipping any that is gone by its turn.
    void deliver(const FlagsChangedEvent& event) const;

private:
    std::function<bool()> m_start;
    std::function<void()> m_stop;
    std::map<KeyMonitor::Token, KeyMonitor::Handler> m_handlers;
    KeyMonitor::Token m_nextToken = 1;
};
