#pragma once

#include "Platform/KeyPoster.h"

#include <functional>
#include <vector>

// Records the key events posted; tests can make the creation of key-down or key-up events fail.
class FakeKeyPoster final : public KeyPoster {
public:
    bool canMakeKeyDown = true;
    bool canMakeKeyUp = true;
    std::vector<KeyEvent> posted;
    // Called after each post, e.g. to see what the pasteboard held at that moment.
    std::function<void(const KeyEvent&)> onPost;

    std::optional<KeyEvent> makeKeyEvent(quint16 virtualKey, bool keyDown) override;
    void post(const KeyEvent& event) override;
};
