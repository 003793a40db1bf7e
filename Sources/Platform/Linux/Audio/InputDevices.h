#pragma once

// The capture devices the sound system offers.
namespace InputDevices {

// Whether at least one microphone is listed (the monitor of an output does not count), as the sound
// server last said. The program's first ask may wait for the server up to half a second: make it
// off the main thread.
bool anyListed();

}
