#pragma once

#include "Platform/WindowFocus.h"

// On X11 and XWayland: a window that takes no input (WM_HINTS input false, which Qt sets for
// Qt::WindowDoesNotAcceptFocus) must not offer WM_TAKE_FOCUS either, or window managers and
// XWayland compositors (sway) treat it as one that takes the focus by itself and focus it as it
// appears. Qt always offers it, so it is taken out of the window's WM_PROTOCOLS. Elsewhere (Qt on
// Wayland) nothing is done: the compositor decides, and the README gives sway users a no_focus rule.
class X11WindowFocus final : public WindowFocus {
public:
    void keepFromTakingFocus(QWidget& window) override;
};
