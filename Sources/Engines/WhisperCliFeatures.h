#pragma once

#include <QString>
#include <QStringList>

// What the whisper-cli found on this machine can do, asked once per program path: Debian's and
// Homebrew's builds lag behind the one we build, and an option it does not know makes it refuse to run.
namespace WhisperCliFeatures {

// Whether its --help lists voice activity detection. Runs the program the first time for a path
// (blocking, so not on the main thread); safe from any thread.
bool supportsVad(const QString& binary);

// Where the Silero voice activity model is looked for: the models folder.
QString vadModelPath();

// The options that make `binary` transcribe only what its voice activity detection finds to be
// speech, or none when it cannot or the model is not installed.
QStringList vadArguments(const QString& binary);

}
