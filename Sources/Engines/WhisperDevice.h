#pragma once

#include <QByteArray>
#include <QString>

// Which device a whisper-cli run computed on, as its log on standard error tells: the GPU it took
// ("Vulkan0", with the driver's name for it when the log gives one), or the CPU with the variant of
// ggml's CPU code it loaded ("haswell"), and a GPU that failed to start on the way there.
namespace WhisperDevice {

// Empty when the log names no device (a run with --no-prints, or one that failed before).
QString fromLog(const QByteArray& errorOutput);

}
