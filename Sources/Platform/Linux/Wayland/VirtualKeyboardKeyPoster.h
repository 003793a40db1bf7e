#pragma once

#include "Platform/KeyPoster.h"

#include <memory>

class WaylandClient;
struct zwp_virtual_keyboard_v1;

// Synthetic keys on Wayland through the virtual-keyboard protocol (sway, Hyprland): a keyboard of
// Voxaria's own, with a US keymap uploaded once, so the shortcut means Control-V in the target
// whatever layout the user types with. Its events carry only the modifiers Voxaria sends: keys the
// user holds on a real keyboard belong to that keyboard and do not reach the shortcut. Command
// stands for Control, as on X11. Main thread only.
class VirtualKeyboardKeyPoster final : public KeyPoster {
public:
    explicit VirtualKeyboardKeyPoster(std::shared_ptr<WaylandClient> client);
    ~VirtualKeyboardKeyPoster() override;

    std::optional<KeyEvent> makeKeyEvent(quint16 virtualKey, bool keyDown) override;
    void post(const KeyEvent& event) override;

private:
    struct Keymap;

    bool ensureKeyboard();
    quint32 modifierMaskFor(quint64 flags);

    std::shared_ptr<WaylandClient> m_client;
    std::unique_ptr<Keymap> m_keymap;
    zwp_virtual_keyboard_v1* m_keyboard = nullptr;
};
