#pragma once

#include "Engines/TranscriptionEngine.h"

#include <QString>
#include <QStringList>

#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

// Skips the running test and says why; in CI (CI=true) fails it with that reason instead. Every
// test that cannot run here goes through this, never through GTEST_SKIP alone.
#define VOXARIA_SKIP(reason)                                                                                                               \
    do {                                                                                                                                   \
        const std::string voxariaSkipReason = QString(reason).toStdString();                                                               \
        if (TestSupport::mustRun())                                                                                                        \
            GTEST_FAIL() << "cannot run, and CI=true requires every test to: " << voxariaSkipReason;                                       \
        GTEST_SKIP() << voxariaSkipReason;                                                                                                 \
    } while (false)

// Readable QStrings in test failure messages.
inline void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}

namespace TestSupport {

// Whether every test must run here: in CI (CI=true) a test that cannot run is a failure, not a pass.
bool mustRun();

// Points HOME, the XDG folders and TMPDIR at a fresh folder, so no test touches the user's files.
// Called once by the test main, before the QApplication exists.
void isolateUserFolders();

// Spins the event loop until `condition` holds or the time is up; answers the condition's value.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = std::chrono::seconds(5));
// Spins the event loop for the given time.
void spin(std::chrono::milliseconds duration);

QString testDataPath(const QString& relative); // e.g. "speech/jfk.wav"
QString fakesPath(const QString& name); // a fake program under tests/fakes
// Writes a file, making its folder first.
bool writeFile(const QString& path, const QByteArray& bytes, bool executable = false);

// Whether the headless harness (Xvfb + PulseAudio virtual microphone) is running around us.
bool hasX11();
bool hasPulseAudio();

// Plays a sound file into the virtual microphone and waits until it has been played.
bool playIntoMicrophone(const QString& path);
// Length in seconds of an audio file, as ffprobe reports it.
double audioDuration(const QString& path);

// The header of a canonical 44-byte WAV file; `valid` when its sizes agree with the file's.
struct WavInfo {
    bool valid = false;
    int format = 0, channels = 0, sampleRate = 0, bitsPerSample = 0;
    qint64 dataBytes = 0;
    double seconds() const { return double(dataBytes) / (sampleRate * channels * bitsPerSample / 8); }
};
WavInfo readWav(const QString& path);

// The files a dictation keeps in a temporary folder ("voxaria-*"), with their full paths.
QStringList dictationFiles(const QString& folder = QString());

// Everything an engine told the controller, and whether every call came on the main thread.
struct EngineAnswers {
    QStringList partials;
    QStringList finals;
    QStringList errors; // as the user reads them
    bool onMainThread = true;

    void start(TranscriptionEngine& engine);
    // What a refused start() threw, as the user reads it, or "started".
    QString startFailure(TranscriptionEngine& engine);
    int count() const { return int(finals.size() + errors.size()); }
    bool answered() const { return count() > 0; }
};

// What `pactl list WHAT...` prints.
QString pulseListing(const QStringList& what);

// A second microphone (think of a USB headset) made PulseAudio's default source until the test
// unplugs it. The harness's own microphone is the default again afterwards, whatever happened.
class Headset {
public:
    Headset();
    ~Headset();
    QString source() const { return m_source; }
    // Plugged in, and listed by Qt as an input.
    bool isPlugged() const;
    bool unplug();
    // Still listed, but PulseAudio delivers nothing from it any more.
    bool fallSilent();

private:
    QString m_source;
    QString m_module;
};

// The harness's microphone unplugged, so PulseAudio lists no capture source, until the end of the
// scope; both changes are waited for until the program's own look-up sees them.
class NoMicrophone {
public:
    NoMicrophone();
    ~NoMicrophone();

private:
    QString m_arguments;
};

// The fake whisper-cli, installed beside this test program (where the app looks first), and the
// control file beside it that scripts its next runs.
class FakeWhisper {
public:
    FakeWhisper();
    ~FakeWhisper();
    QString binaryPath() const { return m_binary; }
    // Lines of "key=value" the fake obeys (text=, exit=, stderr=, hold=, notxt=1...).
    void script(const QString& controlLines) { writeFile(m_binary + ".control", controlLines.toUtf8()); }
    // The arguments and the input WAV of the most recent run, as the fake recorded them.
    QStringList lastArguments() const;
    QString lastInputCopy() const { return m_binary + ".lastinput.wav"; }

private:
    QString m_binary;
};

}
