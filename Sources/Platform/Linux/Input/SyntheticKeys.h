#pragma once

// Key changes this process makes on the X server itself: the paste lets go of a modifier the user
// holds and presses it again afterwards. The key monitor passes over them, so the dictation key
// held through a paste neither ends nor starts a dictation. Main thread only.
namespace SyntheticKeys {
// Says that the next change of `keycode` to `pressed` is ours.
void expect(int keycode, bool pressed);
// Whether a change the server reports is one announced by expect(); each announcement answers once,
// and one the server never reports is forgotten after a second.
bool isOurs(int keycode, bool pressed);
}
