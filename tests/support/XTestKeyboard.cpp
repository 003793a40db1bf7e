#include "XTestKeyboard.h"

#include "TestSupport.h"

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

namespace XTestKeyboard {

namespace {

Display* display()
{
    static Display* connection = XOpenDisplay(nullptr);
    return connection;
}

bool send(int keycode, bool down)
{
    Display* d = display();
    if (!d)
        return false;
    const bool sent = XTestFakeKeyEvent(d, unsigned(keycode), down ? True : False, CurrentTime);
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
    if (!press(keycode))
        return false;
    TestSupport::spin(held);
    return release(keycode);
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
    Display* d = display();
    if (!d)
        return 0;
    Window window = 0;
    int revert = 0;
    XGetInputFocus(d, &window, &revert);
    return window;
}

}
