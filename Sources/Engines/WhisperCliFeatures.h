#pragma once

#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

// What the whisper-cli found on this machine can do, asked once per program path: Debian's and
// Homebrew's builds lag behind the one we build, and an option it does not know makes it refuse to run.
namespace WhisperCliFeatures {

// Whether its --help lists voice activity detection (since 1.7.6; reading its audio from standard
// input came earlier, in 1.5.0, so one that lists it reads standard input too). Runs the program
// the first time for a path and modification time (blocking, so not on the main thread); safe from
// any thread.
bool supportsVad(const QString& binary);
// The same answer if it is known already, without running anything.
std::optional<bool> knownVadSupport(const QString& binary);
// Asks the program without waiting for it (main thread); `answer` runs on the main thread once
// known, unless the program cannot be run or does not answer in time.
void probeVadSupport(const QString& binary, std::function<void(bool supported)> answer);

// Where the Silero voice activity model is looked for: the models folder.
QString vadModelPath();

// The options that make `binary` transcribe only what its voice activity detection finds to be
// speech, or none when it cannot or the model is not installed.
QStringList vadArguments(const QString& binary);

}
