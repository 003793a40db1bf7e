#include "Shared/Logging.h"

#include "X11Display.h"
#include "X11FrontApplication.h"

#include <X11/Xatom.h>

namespace {

std::optional<Window> focusedTopLevel(Display* display)
{
    const Window root = DefaultRootWindow(display);
    Window window = None;
    const Atom activeWindow = XInternAtom(display, "_NET_ACTIVE_WINDOW", False);
    if (const auto active = X11Display::cardinalProperty(display, root, activeWindow, XA_WINDOW))
        window = Window(*active);
    if (window == None) {
        // No window manager says which window is active: follow the keyboard focus instead.
        int revertTo = 0;
        XGetInputFocus(display, &window, &revertTo);
    }
    const Atom wmClass = XInternAtom(display, "WM_CLASS", False);
    // The focus often sits on a child of the application's top-level window; climb to the window
    // that carries the class, or at least to the top-level one.
    while (window != None && window != PointerRoot && window != root) {
        if (X11Display::stringProperty(display, window, wmClass))
            return window;
        Window rootReturn = None;
        Window parent = None;
        Window* children = nullptr;
        unsigned int count = 0;
        const bool ok
            = X11Display::withErrorsTrapped(display, [&] { XQueryTree(display, window, &rootReturn, &parent, &children, &count); });
        if (children)
            XFree(children);
        if (!ok)
            return std::nullopt;
        if (parent == root)
            return window;
        window = parent;
    }
    return std::nullopt;
}

std::optional<FrontApplication::WindowClass> classOf(Display* display, Window window)
{
    const std::optional<QByteArray> raw = X11Display::stringProperty(display, window, XInternAtom(display, "WM_CLASS", False));
    if (!raw)
        return std::nullopt;
    // Two NUL-terminated strings: the instance name, then the class.
    const QList<QByteArray> parts = raw->split('\0');
    FrontApplication::WindowClass windowClass;
    windowClass.instance = QString::fromLocal8Bit(parts.value(0));
    windowClass.className = QString::fromLocal8Bit(parts.value(1));
    return windowClass;
}

std::optional<qint64> processId(Display* display, Window window)
{
    const auto pid = X11Display::cardinalProperty(display, window, XInternAtom(display, "_NET_WM_PID", False), XA_CARDINAL);
    return pid ? std::optional<qint64>(qint64(*pid)) : std::nullopt;
}

}

std::optional<QString> X11FrontApplication::desktopEntryName(const WindowClass& windowClass)
{
    return m_desktopNames.nameFor(windowClass);
}

void X11FrontApplication::ask(QObject* context, AnswerHandler done)
{
    answerLater(context, std::move(done), Answer{localizedName(), windowClass()});
}

std::optional<QString> X11FrontApplication::localizedName()
{
    Display* display = X11Display::shared();
    if (!display)
        return std::nullopt;
    const std::optional<Window> window = focusedTopLevel(display);
    if (!window)
        return std::nullopt;
    if (const std::optional<WindowClass> windowClass = classOf(display, *window)) {
        if (std::optional<QString> name = desktopEntryName(*windowClass))
            return name;
        if (!windowClass->className.isEmpty())
            return windowClass->className;
    }
    const std::optional<qint64> pid = processId(display, *window);
    return pid ? DesktopEntryNames::processName(*pid) : std::nullopt;
}

std::optional<FrontApplication::WindowClass> X11FrontApplication::windowClass()
{
    Display* display = X11Display::shared();
    if (!display)
        return std::nullopt;
    const std::optional<Window> window = focusedTopLevel(display);
    return window ? classOf(display, *window) : std::nullopt;
}
