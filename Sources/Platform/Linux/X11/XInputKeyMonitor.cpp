#include "XInputKeyMonitor.h"

#include "Platform/Linux/Input/ModifierKeys.h"
#include "Platform/Linux/Input/SyntheticKeys.h"
#include "Shared/Logging.h"

#include <QSocketNotifier>

#include <X11/Xlib.h>
#include <X11/extensions/XInput2.h>

XInputKeyMonitor::XInputKeyMonitor()
    : m_handlers([this] { return openConnection(); }, [this] { closeConnection(); })
{
}

XInputKeyMonitor::~XInputKeyMonitor()
{
    closeConnection();
}

KeyMonitor::Token XInputKeyMonitor::addMonitor(Handler handler)
{
    return m_handlers.add(std::move(handler));
}

void XInputKeyMonitor::removeMonitor(Token token)
{
    m_handlers.remove(token);
}

bool XInputKeyMonitor::openConnection()
{
    Display* display = XOpenDisplay(nullptr);
    if (!display) {
        qCWarning(lcHotkey) << "cannot watch the dictation key: no X display (DISPLAY is" << qEnvironmentVariable("DISPLAY") << ")";
        return false;
    }
    int event = 0;
    int error = 0;
    int major = 2;
    int minor = 2;
    if (!XQueryExtension(display, "XInputExtension", &m_xinputOpcode, &event, &error)
        || XIQueryVersion(display, &major, &minor) != Success) {
        qCWarning(lcHotkey) << "cannot watch the dictation key: the X server lacks XInput 2";
        XCloseDisplay(display);
        return false;
    }

    unsigned char bits[XIMaskLen(XI_LASTEVENT)] = {};
    XISetMask(bits, XI_RawKeyPress);
    XISetMask(bits, XI_RawKeyRelease);
    XIEventMask mask{XIAllMasterDevices, int(sizeof bits), bits};
    XISelectEvents(display, DefaultRootWindow(display), &mask, 1);
    // Waits until the server has the selection: a key pressed after "watching" is then always seen.
    XSync(display, False);

    m_display = display;
    m_heldKeycodes.clear();
    m_notifier = std::make_unique<QSocketNotifier>(ConnectionNumber(display), QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &XInputKeyMonitor::readPendingEvents);
    qCInfo(lcHotkey).noquote() << QStringLiteral("watching modifier keys through XInput %1.%2").arg(major).arg(minor);
    return true;
}

void XInputKeyMonitor::closeConnection()
{
    if (!m_display)
        return;
    // Later, not now: a handler run from the notifier's own signal may be what closes it.
    m_notifier->setEnabled(false);
    m_notifier.release()->deleteLater();
    XCloseDisplay(m_display);
    m_display = nullptr;
    m_heldKeycodes.clear();
}

void XInputKeyMonitor::readPendingEvents()
{
    // Xlib may already have queued several events from one read of the socket: drain them all, or
    // the notifier would not fire again for those still in the queue.
    while (m_display && XPending(m_display) > 0) {
        XEvent event;
        XNextEvent(m_display, &event);
        XGenericEventCookie* cookie = &event.xcookie;
        if (cookie->type != GenericEvent || cookie->extension != m_xinputOpcode || !XGetEventData(m_display, cookie))
            continue;
        const bool isKey = cookie->evtype == XI_RawKeyPress || cookie->evtype == XI_RawKeyRelease;
        const auto* raw = static_cast<const XIRawEvent*>(cookie->data);
        const int keycode = isKey ? raw->detail : 0;
        // The server's own time of the key change: how long a key was held does not depend on how
        // late we get to read the events.
        const KeyEventTime time = isKey ? KeyEventTime(raw->time) : 0;
        const bool pressed = cookie->evtype == XI_RawKeyPress;
        // Freed before the handlers run: one of them may close this connection.
        XFreeEventData(m_display, cookie);
        if (isKey)
            keyChanged(keycode, pressed, time);
    }
}

void XInputKeyMonitor::keyChanged(int keycode, bool pressed, KeyEventTime time)
{
    // Our own paste letting go of a key the user holds, and pressing it again: the user still holds it.
    if (SyntheticKeys::isOurs(keycode, pressed))
        return;
    const std::optional<ModifierKey> key = modifierForX11Keycode(keycode);
    if (!key)
        return;
    // Key repeat reports a held key as pressed again; only real changes become events.
    const bool changed = pressed ? m_heldKeycodes.insert(keycode).second : m_heldKeycodes.erase(keycode) > 0;
    if (!changed)
        return;
    m_handlers.deliver(FlagsChangedEvent{key->virtualKeyCode, flagsOfHeldKeycodes(m_heldKeycodes), time});
}
