#pragma once

// Qt's headers go first: Xlib defines macros (Bool, Status, None) that clash with them.
#include <QByteArray>

#include <X11/Xlib.h>

#include <optional>

// One Xlib connection for the synthetic keys and the focus queries, opened on first use and kept
// for the life of the process. Main thread only.
namespace X11Display {

// The connection, or null when there is no X display (a pure Wayland session, a headless run).
Display* shared();

// The internals of withErrorsTrapped(), kept out of line.
void beginTrap(Display* display);
bool endTrap(Display* display);

// Runs Xlib requests that may name windows that vanished meanwhile; such errors are swallowed
// instead of ending the process. Answers whether the requests went without error.
template <typename Requests> bool withErrorsTrapped(Display* display, Requests&& requests)
{
    beginTrap(display);
    requests();
    return endTrap(display);
}

// Whether the display can take synthetic input events (the XTEST extension).
bool offersXTest(Display* display);

// The X server's current time, from a round trip on this connection (nothing if no answer came).
std::optional<Time> serverTime(Display* display);

// A string property of a window (e.g. WM_CLASS), raw, or nothing.
std::optional<QByteArray> stringProperty(Display* display, Window window, Atom property);
// The first value of a CARDINAL or WINDOW property (e.g. _NET_WM_PID), or nothing.
std::optional<unsigned long> cardinalProperty(Display* display, Window window, Atom property, Atom type);

}
