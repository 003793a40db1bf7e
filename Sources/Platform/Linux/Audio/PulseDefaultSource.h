#pragma once

#include <QString>

// The name of PulseAudio's default source ("" when the server cannot be reached). Qt 6.4 marks no
// input as default on PulseAudio, so the capture device is picked by this name.
QString pulseDefaultSourceName();

// How many capture sources PulseAudio lists, leaving out the monitors of its sinks (0 when the
// server cannot be reached).
int pulseCaptureSourceCount();
