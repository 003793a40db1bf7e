#pragma once

#include "Platform/KeyPoster.h"

#include <memory>
#include <vector>

class SeatKeymap;
class WaylandClient;

// Synthetic keys on KDE Plasma through KWin's fake input: the keys join the seat's own keyboard,
// so KWin reads them with the user's layout and modifiers. The key that types "v" is looked up in
// that layout (the seat's keymap), so Control-V pastes in Dvorak too; before the layout arrives, the
// QWERTY position is used. KWin offers the protocol only to a
// program whose real path is the Exec= of an installed desktop file declaring
// X-KDE-Wayland-Interfaces=org_kde_kwin_fake_input; without it nothing can be posted. Command
// stands for Control, as on X11. Main thread only.
class FakeInputKeyPoster final : public KeyPoster {
public:
    explicit FakeInputKeyPoster(std::shared_ptr<WaylandClient> client);
    ~FakeInputKeyPoster() override;

    std::optional<KeyEvent> makeKeyEvent(quint16 virtualKey, bool keyDown) override;
    void post(const KeyEvent& event) override;

private:
    bool ensureAuthenticated();
    void sendKey(quint32 key, bool down);
    quint32 keyV() const;

    std::shared_ptr<WaylandClient> m_client;
    std::unique_ptr<SeatKeymap> m_keymap;
    bool m_authenticated = false;
    // The key the last key down pressed, and the modifier keys it pressed, let go after its key up.
    quint32 m_pressedKey = 0;
    std::vector<quint32> m_pressedModifiers;
};
