#pragma once

#include "Platform/KeyMonitor.h"

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
template <typename Keycodes>
quint64 flagsOfHeldKeycodes(const Keycodes& keycodes)
{
    quint64 flags = 0;
    for (int keycode : keycodes) {
        if (const std::optional<ModifierKey> key = modifierForX11Keycode(keycode))
            flags |= key->flag;
    }
    return flags;
}

// The handlers installed on one key source.
class KeyHandlerList {
public:
    KeyMonitor::Token add(KeyMonitor::Handler handler);
    void remove(KeyMonitor::Token token);
    bool empty() const { return m_handlers.empty(); }
    // Handlers may add or remove monitors while being called: the ones installed now are called,
    // skipping any that is gone by its turn.
    void deliver(const FlagsChangedEvent& event) const;

private:
    std::map<KeyMonitor::Token, KeyMonitor::Handler> m_handlers;
    KeyMonitor::Token m_nextToken = 1;
};
