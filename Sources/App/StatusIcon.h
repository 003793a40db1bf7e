#pragma once

#include <QIcon>

// The waveform shown in the tray, drawn in the colour of the dictation state.
namespace StatusIcon {
enum class Tint { normal, red, orange };
QIcon make(Tint tint);
}
