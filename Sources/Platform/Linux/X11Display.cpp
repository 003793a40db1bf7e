#include "Logging.h"

#include "X11Display.h"

#include <X11/Xatom.h>

namespace X11Display {

namespace {
int (*previousHandler)(Display*, XErrorEvent*) = nullptr;
bool trappedError = false;

int recordError(Display*, XErrorEvent* event)
{
    trappedError = true;
    qCDebug(lcInsert) << "X request failed with error code" << int(event->error_code);
    return 0;
}

struct Connection {
    Display* display = XOpenDisplay(nullptr);
    Connection()
    {
        if (!display)
            qCWarning(lcInsert) << "No X display: synthetic keys and the front application are unavailable";
    }
    ~Connection()
    {
        if (display)
            XCloseDisplay(display);
    }
};
}

Display* shared()
{
    static Connection connection;
    return connection.display;
}

void beginTrap(Display* display)
{
    XSync(display, False);
    trappedError = false;
    previousHandler = XSetErrorHandler(recordError);
}

bool endTrap(Display* display)
{
    XSync(display, False);
    XSetErrorHandler(previousHandler);
    return !trappedError;
}

std::optional<QByteArray> stringProperty(Display* display, Window window, Atom property)
{
    Atom actualType = None;
    int format = 0;
    unsigned long count = 0;
    unsigned long remaining = 0;
    unsigned char* value = nullptr;
    const bool ok = withErrorsTrapped(display, [&] {
        XGetWindowProperty(display, window, property, 0, 4096, False, AnyPropertyType, &actualType, &format,
            &count, &remaining, &value);
    });
    std::optional<QByteArray> result;
    if (ok && value && format == 8)
        result = QByteArray(reinterpret_cast<const char*>(value), int(count));
    if (value)
        XFree(value);
    return result;
}

std::optional<unsigned long> cardinalProperty(Display* display, Window window, Atom property, Atom type)
{
    Atom actualType = None;
    int format = 0;
    unsigned long count = 0;
    unsigned long remaining = 0;
    unsigned char* value = nullptr;
    const bool ok = withErrorsTrapped(display, [&] {
        XGetWindowProperty(display, window, property, 0, 1, False, type, &actualType, &format, &count, &remaining,
            &value);
    });
    std::optional<unsigned long> result;
    // Xlib hands 32-bit properties back as longs.
    if (ok && value && format == 32 && count == 1)
        result = *reinterpret_cast<unsigned long*>(value);
    if (value)
        XFree(value);
    return result;
}

}
