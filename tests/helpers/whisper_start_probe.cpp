// Starts one Whisper dictation on the real microphone and prints what start() answered:
// "started" or the error's description. Used to check how the engine behaves where the audio
// system is missing (the caller points PULSE_SERVER at nothing). A fake whisper-cli must be
// beside this program and a model in $XDG_DATA_HOME/Voxaria/models.
#include "Engines/WhisperTranscriber.h"

#include <QCoreApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    WhisperTranscriber engine;
    try {
        engine.start({}, [](const QString&) {}, [](const Error&) {});
        std::puts("started");
        engine.cancel();
    } catch (const Error& error) {
        std::puts(error.description().toUtf8().constData());
    }
    return 0;
}
