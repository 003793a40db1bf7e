#include "X11AccessibilityTrust.h"

#include "Shared/Logging.h"

#include "X11Display.h"

#include <X11/extensions/XInput2.h>

namespace {

bool offersXInput2(Display* display)
{
    int opcode = 0;
    int event = 0;
    int error = 0;
    if (!XQueryExtension(display, "XInputExtension", &opcode, &event, &error))
        return false;
    int major = 2;
    int minor = 0;
    return XIQueryVersion(display, &major, &minor) == Success && major >= 2;
}

}

bool X11AccessibilityTrust::isTrusted(bool prompt)
{
    Display* display = X11Display::shared();
    const bool trusted = display && offersXInput2(display) && X11Display::offersXTest(display);
    if (!trusted && prompt)
        qCWarning(lcDictation) << "keyboard access is not possible here: it needs an X11 session whose server"
                                  " offers XInput 2 and XTEST";
    return trusted;
}
