#pragma once

#include <QtGlobal>

#include <chrono>

// Physical key presses synthesised on the X server with XTest, by keycode, as a user's keyboard
// would send them (xdotool's keysym names would also press a second key for AltGr).
namespace XTestKeyboard {

bool press(int keycode);
bool release(int keycode);
// Presses and releases the key `held` later by the X server's clock; returns once both are done.
// The event loop does not run meanwhile.
bool tap(int keycode, std::chrono::milliseconds held);

// Gives the keyboard focus to a window, as a window manager would on a click.
void focus(quint64 window);
// The window that has the keyboard focus now.
quint64 focusedWindow();

}
