#include "FakeKeyPoster.h"

std::optional<KeyPoster::KeyEvent> FakeKeyPoster::makeKeyEvent(quint16 virtualKey, bool keyDown)
{
    if (keyDown ? !canMakeKeyDown : !canMakeKeyUp)
        return std::nullopt;
    return KeyEvent{virtualKey, keyDown, 0};
}

void FakeKeyPoster::post(const KeyEvent& event)
{
    posted.push_back(event);
    if (onPost)
        onPost(event);
}
