#include "FakeInputKeyPoster.h"

#include "SeatKeymap.h"
#include "WaylandClient.h"

#include "fake-input-client-protocol.h"

#include <wayland-client.h>
#include <xkbcommon/xkbcommon-keysyms.h>

namespace {

// The kernel's key codes, which fake input takes: KWin passes them through the session's keymap
// like a real keyboard's.
constexpr quint32 keyLeftControl = 29;
constexpr quint32 keyLeftShift = 42;
constexpr quint32 keyLeftAlt = 56;
constexpr quint32 qwertyKeyV = 47;

std::vector<quint32> modifierKeysFor(quint64 flags)
{
    std::vector<quint32> keys;
    if (flags & (KeyPoster::commandFlag | KeyPoster::controlFlag))
        keys.push_back(keyLeftControl);
    if (flags & KeyPoster::optionFlag)
        keys.push_back(keyLeftAlt);
    if (flags & KeyPoster::shiftFlag)
        keys.push_back(keyLeftShift);
    return keys;
}

}

FakeInputKeyPoster::FakeInputKeyPoster(std::shared_ptr<WaylandClient> client)
    : m_client(std::move(client))
    , m_keymap(m_client ? std::make_unique<SeatKeymap>(m_client) : nullptr)
{
}

FakeInputKeyPoster::~FakeInputKeyPoster() = default;

quint32 FakeInputKeyPoster::keyV() const
{
    return m_keymap ? m_keymap->kernelKeyFor(XKB_KEY_v).value_or(qwertyKeyV) : qwertyKeyV;
}

// KWin asks a fake input device to say who it is before it takes any event from it.
bool FakeInputKeyPoster::ensureAuthenticated()
{
    if (!m_client || !m_client->fakeInput() || !m_client->isConnected())
        return false;
    if (!m_authenticated) {
        org_kde_kwin_fake_input_authenticate(m_client->fakeInput(), "Voxaria", "Colar o texto ditado");
        m_authenticated = true;
    }
    return true;
}

std::optional<KeyPoster::KeyEvent> FakeInputKeyPoster::makeKeyEvent(quint16 virtualKey, bool keyDown)
{
    if (virtualKey != virtualKeyV || !ensureAuthenticated())
        return std::nullopt;
    return KeyEvent{virtualKey, keyDown, 0};
}

void FakeInputKeyPoster::sendKey(quint32 key, bool down)
{
    org_kde_kwin_fake_input_keyboard_key(m_client->fakeInput(), key, down ? WL_KEYBOARD_KEY_STATE_PRESSED : WL_KEYBOARD_KEY_STATE_RELEASED);
}

void FakeInputKeyPoster::post(const KeyEvent& event)
{
    if (event.virtualKey != virtualKeyV || !ensureAuthenticated())
        return;
    // Here the modifiers are keys of the seat's keyboard: down before the key, up after it.
    if (event.keyDown) {
        m_pressedModifiers = modifierKeysFor(event.flags);
        for (quint32 modifier : m_pressedModifiers)
            sendKey(modifier, true);
        m_pressedKey = keyV();
        sendKey(m_pressedKey, true);
    } else {
        sendKey(m_pressedKey, false);
        for (auto modifier = m_pressedModifiers.rbegin(); modifier != m_pressedModifiers.rend(); ++modifier)
            sendKey(*modifier, false);
        m_pressedModifiers.clear();
    }
    m_client->flush();
}
