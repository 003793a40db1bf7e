#pragma once

#include "Platform/PlatformServices.h"

// The Linux desktop's services: Qt's dialogs and message boxes, sound effects, XDG autostart, the
// StatusNotifier tray, PulseAudio capture, libsoxr conversion, FFmpeg reading and the live engine.
namespace LinuxServices {
PlatformServices make();
}
