#include "Shared/Logging.h"

#include "X11Display.h"

#include <X11/Xatom.h>
#include <X11/extensions/XTest.h>

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
            qCWarning(lcInsert) << "No X display: XTEST keys and the X11 front application are unavailable";
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

namespace {

// One property's value as Xlib hands it over, freed with Xlib's own allocator.
struct PropertyValue {
    int format = 0;
    unsigned long count = 0;
    unsigned char* data = nullptr;
    PropertyValue() = default;
    PropertyValue(const PropertyValue&) = delete;
    PropertyValue& operator=(const PropertyValue&) = delete;
    ~PropertyValue()
    {
        if (data)
            XFree(data);
    }
};

bool readProperty(Display* display, Window window, Atom property, Atom type, long length, PropertyValue& value)
{
    Atom actualType = None;
    unsigned long remaining = 0;
    return withErrorsTrapped(display, [&] {
        XGetWindowProperty(
            display, window, property, 0, length, False, type, &actualType, &value.format, &value.count, &remaining, &value.data);
    }) && value.data;
}

}

bool offersXTest(Display* display)
{
    int eventBase = 0;
    int errorBase = 0;
    int major = 0;
    int minor = 0;
    return XTestQueryExtension(display, &eventBase, &errorBase, &major, &minor);
}

std::optional<Time> serverTime(Display* display)
{
    // An empty append to a property of a hidden window of ours: the server stamps the
    // PropertyNotify it sends back with its current time, and changes nothing.
    static const Window stamp = [display] {
        XSetWindowAttributes attributes{};
        attributes.event_mask = PropertyChangeMask;
        return XCreateWindow(
            display, DefaultRootWindow(display), -10, -10, 1, 1, 0, CopyFromParent, InputOnly, CopyFromParent, CWEventMask, &attributes);
    }();
    static const Atom property = XInternAtom(display, "_VOXARIA_TIME", False);
    XChangeProperty(display, stamp, property, XA_STRING, 8, PropModeAppend, reinterpret_cast<const unsigned char*>(""), 0);
    // The event comes before the reply that ends the sync, so it is queued by now.
    XSync(display, False);
    std::optional<Time> time;
    XEvent event;
    while (XCheckTypedWindowEvent(display, stamp, PropertyNotify, &event))
        time = event.xproperty.time;
    return time;
}

std::optional<QByteArray> stringProperty(Display* display, Window window, Atom property)
{
    PropertyValue value;
    if (!readProperty(display, window, property, AnyPropertyType, 4096, value) || value.format != 8)
        return std::nullopt;
    return QByteArray(reinterpret_cast<const char*>(value.data), int(value.count));
}

std::optional<unsigned long> cardinalProperty(Display* display, Window window, Atom property, Atom type)
{
    PropertyValue value;
    // Xlib hands 32-bit properties back as longs.
    if (!readProperty(display, window, property, type, 1, value) || value.format != 32 || value.count != 1)
        return std::nullopt;
    return *reinterpret_cast<unsigned long*>(value.data);
}

}
