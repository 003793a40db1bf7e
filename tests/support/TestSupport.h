#pragma once

#include "Engines/TranscriptionEngine.h"

#include <QString>
#include <QStringList>

#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

// Skips the running test and says why; in CI (CI=true) fails it with that reason instead.
#define VOXARIA_SKIP(reason)                                                                                                               \
    do {                                                                                                                                   \
        const std::string voxariaSkipReason = QString(reason).toStdString();                                                               \
        if (qEnvironmentVariable("CI") == QLatin1String("true"))                                                                           \
            GTEST_FAIL() << "cannot run, and CI=true requires every test to: " << voxariaSkipReason;                                       \
        GTEST_SKIP() << voxariaSkipReason;                                                                                                 \
    } while (false)

// Readable QStrings in test failure messages.
inline void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}

namespace TestSupport {

// Points HOME, the XDG folders and TMPDIR at a fresh folder, so no test touches the user's files.
void isolateUserFolders();

// Spins the event loop until `condition` holds or the time is up; answers the condition's value.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = std::chrono::seconds(5));
void spin(std::chrono::milliseconds duration);

QString testDataPath(const QString& relative); // e.g. "speech/jfk.wav"
QString fakesPath(const QString& name); // a fake program under tests/fakes
// Writes a file, making its folder first.
bool writeFile(const QString& path, const QByteArray& bytes, bool executable = false);

// Whether the headless harness (Xvfb, PulseAudio and its virtual microphone) is around us.
bool hasX11();
bool hasPulseAudio();

// Plays a sound file into the virtual microphone and waits until it has been played.
bool playIntoMicrophone(const QString& path);
double audioDuration(const QString& path); // in seconds, as ffprobe reports it

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

QString pulseListing(const QStringList& what); // what `pactl list WHAT...` prints

// A second microphone (a USB headset, say) made PulseAudio's default source until unplugged; the
// harness's own microphone is the default again afterwards, whatever happened.
class Headset {
public:
    Headset();
    ~Headset();
    QString source() const { return m_source; }
    bool isPlugged() const; // and listed by Qt as an input
    bool unplug();
    bool fallSilent(); // still listed, but PulseAudio delivers nothing from it any more

private:
    QString m_source;
    QString m_module;
};

// The harness's microphone unplugged until the end of the scope, both changes waited for until the
// program's own look-up sees them.
class NoMicrophone {
public:
    NoMicrophone();
    ~NoMicrophone();

private:
    QString m_arguments;
};

// The fake whisper-cli beside this test program (where the app looks first), scripted by the
// control file beside it.
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
