#include "XTestKeyboard.h"

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

namespace XTestKeyboard {

namespace {

Display* display()
{
    static Display* connection = XOpenDisplay(nullptr);
    return connection;
}

// The server holds a delayed event back itself, stamping it with its time of delivery.
bool send(int keycode, bool down, std::chrono::milliseconds delay = {})
{
    Display* d = display();
    const bool sent = d && XTestFakeKeyEvent(d, unsigned(keycode), down ? True : False, static_cast<unsigned long>(delay.count()));
    if (sent)
        XSync(d, False);
    return sent;
}

}

bool press(int keycode)
{
    return send(keycode, true);
}

bool release(int keycode)
{
    return send(keycode, false);
}

bool tap(int keycode, std::chrono::milliseconds held)
{
    // Delayed by the server, so the key events' times are `held` apart however busy this machine is.
    return send(keycode, true) && send(keycode, false, held);
}

void focus(quint64 window)
{
    if (Display* d = display()) {
        XSetInputFocus(d, Window(window), RevertToParent, CurrentTime);
        XSync(d, False);
    }
}

quint64 focusedWindow()
{
    Window window = 0;
    int revert = 0;
    if (display())
        XGetInputFocus(display(), &window, &revert);
    return window;
}

}
