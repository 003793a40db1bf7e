#include "X11WindowFocus.h"

#include "Shared/Logging.h"

#include <QGuiApplication>
#include <QWidget>

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>

namespace {

xcb_atom_t atomNamed(xcb_connection_t* connection, const char* name)
{
    xcb_intern_atom_reply_t* reply
        = xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 0, static_cast<uint16_t>(std::strlen(name)), name), nullptr);
    const xcb_atom_t atom = reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    std::free(reply);
    return atom;
}

}

void X11WindowFocus::keepFromTakingFocus(QWidget& window)
{
    auto* x11 = qApp->nativeInterface<QNativeInterface::QX11Application>();
    if (!x11 || !x11->connection()) {
        qCDebug(lcApp) << "windows through" << QGuiApplication::platformName() << "- the compositor decides whether" << window.windowTitle()
                       << "takes the focus";
        return;
    }
    // Made now, so the protocols Qt writes at creation are there to be replaced. The change goes
    // through Qt's own connection, after Qt's requests, and before the window is ever mapped.
    const auto id = static_cast<xcb_window_t>(window.winId());
    xcb_connection_t* connection = x11->connection();
    const xcb_atom_t protocols[] = {atomNamed(connection, "WM_DELETE_WINDOW"), atomNamed(connection, "_NET_WM_PING")};
    xcb_change_property(
        connection, XCB_PROP_MODE_REPLACE, id, atomNamed(connection, "WM_PROTOCOLS"), XCB_ATOM_ATOM, 32, std::size(protocols), protocols);
    xcb_flush(connection);
}
