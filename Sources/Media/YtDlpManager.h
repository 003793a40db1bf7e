#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// Finds yt-dlp, the program that fetches the audio of online videos, and installs a copy of its own.
namespace YtDlpManager {

// Where yt-dlp is looked for, in order: our own copy in the data folder, then the system.
QStringList candidates();
// The first candidate that is an executable file; looked up afresh at every call.
std::optional<QString> binaryURL();
bool isAvailable();

}
