#pragma once

#include "Platform/KeyPoster.h"

#include <vector>

// Synthetic keys through the XTEST extension. Command stands for Control, the modifier Linux
// applications use for their shortcuts. A key event carries exactly its own modifiers, whatever
// the user holds meanwhile.
class XTestKeyPoster final : public KeyPoster {
public:
    std::optional<KeyEvent> makeKeyEvent(quint16 virtualKey, bool keyDown) override;
    void post(const KeyEvent& event) override;

private:
    // The modifier keysyms that stand for `flags` here.
    static std::vector<unsigned long> modifiersFor(quint64 flags);

    // The modifier keys pressed with the last key-down, released with its key-up.
    std::vector<unsigned char> m_pressedModifiers;
    // The modifier keys the user held at the last key-down, let go until its key-up.
    std::vector<unsigned char> m_releasedModifiers;
};
