#include "Shared/Logging.h"

#include "Platform/Linux/Input/SyntheticKeys.h"
#include "X11Display.h"
#include "XTestKeyPoster.h"

#include <X11/XKBlib.h>
#include <X11/extensions/XTest.h>
#include <X11/keysym.h>

#include <algorithm>

namespace {

// The keys this system synthesises, by virtual key code; the keycode comes from the current layout.
std::optional<KeySym> keySymFor(quint16 virtualKey)
{
    switch (virtualKey) {
    case KeyPoster::virtualKeyV: return XK_v;
    default: return std::nullopt;
    }
}

// The display, when it can take synthetic keys.
Display* xtestDisplay()
{
    Display* display = X11Display::shared();
    static const bool available = display && X11Display::offersXTest(display);
    if (display && !available)
        qCWarning(lcInsert) << "The X server lacks the XTEST extension: cannot synthesise the paste";
    return available ? display : nullptr;
}

void sendKey(Display* display, KeyCode keycode, bool down)
{
    XTestFakeKeyEvent(display, keycode, down ? True : False, CurrentTime);
}

// Pressing a lock key again would toggle its lock, so such keys are left as they are.
bool isLockKey(Display* display, KeyCode keycode)
{
    const KeySym keySym = XkbKeycodeToKeysym(display, keycode, 0, 0);
    return keySym == XK_Caps_Lock || keySym == XK_Shift_Lock || keySym == XK_Num_Lock || keySym == XK_Scroll_Lock;
}

// The modifier keys down on the keyboard now, e.g. the dictation key pressed again or a Shift.
std::vector<KeyCode> heldModifierKeys(Display* display)
{
    char keys[32] = {};
    XQueryKeymap(display, keys);
    XModifierKeymap* map = XGetModifierMapping(display);
    std::vector<KeyCode> held;
    for (int index = 0; map && index < 8 * map->max_keypermod; ++index) {
        const KeyCode keycode = map->modifiermap[index];
        const bool down = keycode != 0 && ((keys[keycode / 8] >> (keycode % 8)) & 1);
        if (down && !isLockKey(display, keycode) && std::find(held.begin(), held.end(), keycode) == held.end())
            held.push_back(keycode);
    }
    if (map)
        XFreeModifiermap(map);
    return held;
}

}

std::optional<KeyPoster::KeyEvent> XTestKeyPoster::makeKeyEvent(quint16 virtualKey, bool keyDown)
{
    Display* display = xtestDisplay();
    const std::optional<KeySym> keySym = keySymFor(virtualKey);
    if (!display || !keySym)
        return std::nullopt;
    if (XKeysymToKeycode(display, *keySym) == 0) {
        qCWarning(lcInsert) << "The keyboard layout has no key for" << XKeysymToString(*keySym);
        return std::nullopt;
    }
    return KeyEvent{virtualKey, keyDown, 0};
}

std::vector<unsigned long> XTestKeyPoster::modifiersFor(quint64 flags)
{
    std::vector<unsigned long> modifiers;
    if (flags & (commandFlag | controlFlag))
        modifiers.push_back(XK_Control_L);
    if (flags & optionFlag)
        modifiers.push_back(XK_Alt_L);
    if (flags & shiftFlag)
        modifiers.push_back(XK_Shift_L);
    return modifiers;
}

void XTestKeyPoster::post(const KeyEvent& event)
{
    Display* display = xtestDisplay();
    const std::optional<KeySym> keySym = keySymFor(event.virtualKey);
    if (!display || !keySym)
        return;
    const KeyCode keycode = XKeysymToKeycode(display, *keySym);
    if (event.keyDown) {
        // The event carries its own modifiers and no others: a modifier the user still holds would
        // turn Control-V into a shortcut nobody answers (Control-AltGr-V) or another one (Control-
        // Shift-V), so it is let go for the shortcut and pressed again after it.
        m_releasedModifiers = heldModifierKeys(display);
        for (KeyCode held : m_releasedModifiers) {
            SyntheticKeys::expect(held, false);
            sendKey(display, held, false);
        }
        m_pressedModifiers.clear();
        for (KeySym modifier : modifiersFor(event.flags)) {
            const KeyCode modifierCode = XKeysymToKeycode(display, modifier);
            sendKey(display, modifierCode, true);
            m_pressedModifiers.push_back(modifierCode);
        }
        sendKey(display, keycode, true);
    } else {
        sendKey(display, keycode, false);
        for (auto modifier = m_pressedModifiers.rbegin(); modifier != m_pressedModifiers.rend(); ++modifier)
            sendKey(display, *modifier, false);
        for (KeyCode held : m_releasedModifiers) {
            SyntheticKeys::expect(held, true);
            sendKey(display, held, true);
        }
        m_pressedModifiers.clear();
        m_releasedModifiers.clear();
    }
    XFlush(display);
}
