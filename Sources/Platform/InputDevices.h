#pragma once

// The capture devices the sound system offers.
namespace InputDevices {

// Whether at least one microphone is listed (the monitor of an output does not count). Asks the
// sound server and may wait for it up to half a second: call it off the main thread.
bool anyListed();

}
