#include "VirtualKeyboardKeyPoster.h"

#include "SeatKeymap.h"
#include "Shared/Logging.h"
#include "WaylandClient.h"

#include "virtual-keyboard-unstable-v1-client-protocol.h"

#include <wayland-client.h>
#include <xkbcommon/xkbcommon.h>

#include <QElapsedTimer>

#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// The keymap the compositor gets: the US layout, which every system has. Key codes sent over the
// protocol are evdev codes, XKB's less 8 (SeatKeymap finds them).

quint32 milliseconds()
{
    static QElapsedTimer clock;
    if (!clock.isValid())
        clock.start();
    return quint32(clock.elapsed());
}

}

struct VirtualKeyboardKeyPoster::Keymap {
    QByteArray text; // the keymap itself, with its terminating NUL
    quint32 keyV = 0; // evdev code of the key that types "v"
    quint32 controlMask = 0;
    quint32 shiftMask = 0;
    quint32 altMask = 0;

    static std::unique_ptr<Keymap> makeUs()
    {
        xkb_context* context = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
        if (!context)
            return nullptr;
        const xkb_rule_names names{nullptr, "pc105", "us", nullptr, nullptr};
        xkb_keymap* keymap = xkb_keymap_new_from_names(context, &names, XKB_KEYMAP_COMPILE_NO_FLAGS);
        std::unique_ptr<Keymap> made;
        if (keymap) {
            made = std::make_unique<Keymap>();
            char* text = xkb_keymap_get_as_string(keymap, XKB_KEYMAP_FORMAT_TEXT_V1);
            made->text = QByteArray(text, qsizetype(std::strlen(text) + 1));
            std::free(text);
            made->keyV = SeatKeymap::kernelKeyFor(keymap, XKB_KEY_v);
            made->controlMask = 1u << xkb_keymap_mod_get_index(keymap, XKB_MOD_NAME_CTRL);
            made->shiftMask = 1u << xkb_keymap_mod_get_index(keymap, XKB_MOD_NAME_SHIFT);
            made->altMask = 1u << xkb_keymap_mod_get_index(keymap, XKB_MOD_NAME_ALT);
            xkb_keymap_unref(keymap);
        }
        xkb_context_unref(context);
        if (made && made->keyV == 0)
            made.reset();
        return made;
    }
};

VirtualKeyboardKeyPoster::VirtualKeyboardKeyPoster(std::shared_ptr<WaylandClient> client)
    : m_client(std::move(client))
{
}

VirtualKeyboardKeyPoster::~VirtualKeyboardKeyPoster()
{
    if (m_keyboard) {
        zwp_virtual_keyboard_v1_destroy(m_keyboard);
        m_client->flush();
    }
}

// The keyboard is made at the first paste and kept: a compositor announces each new keyboard to
// every client, which is not something to repeat for every dictation.
bool VirtualKeyboardKeyPoster::ensureKeyboard()
{
    if (m_keyboard)
        return m_client->isConnected();
    if (!m_client || !m_client->virtualKeyboards() || !m_client->seat())
        return false;
    m_keymap = Keymap::makeUs();
    if (!m_keymap) {
        qCWarning(lcInsert) << "Cannot build a keymap for the virtual keyboard (xkeyboard-config missing?)";
        return false;
    }
    const int fd = memfd_create("voxaria-keymap", MFD_CLOEXEC);
    if (fd < 0 || ::write(fd, m_keymap->text.constData(), size_t(m_keymap->text.size())) != m_keymap->text.size()) {
        qCWarning(lcInsert) << "Cannot hand the keymap to the compositor:" << qt_error_string(errno);
        if (fd >= 0)
            ::close(fd);
        return false;
    }
    m_keyboard = zwp_virtual_keyboard_manager_v1_create_virtual_keyboard(m_client->virtualKeyboards(), m_client->seat());
    zwp_virtual_keyboard_v1_keymap(m_keyboard, WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1, fd, quint32(m_keymap->text.size()));
    ::close(fd);
    // The keymap goes ahead of the keys on the same connection: nothing to wait for.
    m_client->flush();
    return m_client->isConnected();
}

std::optional<KeyPoster::KeyEvent> VirtualKeyboardKeyPoster::makeKeyEvent(quint16 virtualKey, bool keyDown)
{
    if (virtualKey != virtualKeyV || !ensureKeyboard())
        return std::nullopt;
    return KeyEvent{virtualKey, keyDown, 0};
}

quint32 VirtualKeyboardKeyPoster::modifierMaskFor(quint64 flags)
{
    quint32 mask = 0;
    if (flags & (commandFlag | controlFlag))
        mask |= m_keymap->controlMask;
    if (flags & optionFlag)
        mask |= m_keymap->altMask;
    if (flags & shiftFlag)
        mask |= m_keymap->shiftMask;
    return mask;
}

void VirtualKeyboardKeyPoster::post(const KeyEvent& event)
{
    if (event.virtualKey != virtualKeyV || !ensureKeyboard())
        return;
    // The modifiers are state, not keys: set before the key goes down, cleared after it comes up.
    if (event.keyDown)
        zwp_virtual_keyboard_v1_modifiers(m_keyboard, modifierMaskFor(event.flags), 0, 0, 0);
    zwp_virtual_keyboard_v1_key(
        m_keyboard, milliseconds(), m_keymap->keyV, event.keyDown ? WL_KEYBOARD_KEY_STATE_PRESSED : WL_KEYBOARD_KEY_STATE_RELEASED);
    if (!event.keyDown)
        zwp_virtual_keyboard_v1_modifiers(m_keyboard, 0, 0, 0, 0);
    m_client->flush();
}
