#pragma once

// The headless desktop the dictation benchmarks run the real program on: scripts/with-harness.sh's
// X server and virtual microphone, and a window of another program that receives the dictated text.

#include "AppRun.h"
#include "TestSupport.h"
#include "XTestKeyboard.h"

#include <cstdio>

namespace BenchDesktop {

// Says what is missing when the benchmark was not started under the harness.
inline bool isPresent(const char* benchmark)
{
    if (!qEnvironmentVariableIsEmpty("DISPLAY") && TestSupport::hasPulseAudio())
        return true;
    std::fprintf(stderr, "%s needs the headless desktop: run it through scripts/with-harness.sh\n", benchmark);
    return false;
}

// Starts the receiving window and gives it the keyboard focus, as a user's click would.
inline bool focusReceiver(ReceivingWindow& receiver)
{
    if (!receiver.start()) {
        std::fprintf(stderr, "the receiving window did not start\n");
        return false;
    }
    XTestKeyboard::focus(receiver.windowId());
    return true;
}

}
