#pragma once

#include <QString>

#include <chrono>
#include <functional>
#include <ostream>

// Readable QStrings in test failure messages.
inline void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}

namespace TestSupport {

// Points HOME, the XDG folders and TMPDIR at a fresh folder, so no test touches the user's files.
// Called once by the test main, before the QApplication exists.
void isolateUserFolders();
QString isolatedRoot();

// Spins the event loop until `condition` holds or the time is up; answers the condition's value.
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = std::chrono::seconds(5));
// Spins the event loop for the given time.
void spin(std::chrono::milliseconds duration);

QString testDataPath(const QString& relative); // e.g. "speech/jfk.wav"
QString fakesPath(const QString& name);          // a fake program under tests/fakes

// Whether the headless harness (Xvfb + PulseAudio virtual microphone) is running around us.
bool hasX11();
bool hasPulseAudio();

// Plays a sound file into the virtual microphone and waits until it has been played.
bool playIntoMicrophone(const QString& path);
// Length in seconds of an audio file, as ffprobe reports it.
double audioDuration(const QString& path);

// The fake whisper-cli, installed beside this test program (where the app looks first), and the
// control file beside it that scripts its next runs.
class FakeWhisper {
public:
    FakeWhisper();
    ~FakeWhisper();
    QString binaryPath() const { return m_binary; }
    // Lines of "key=value" the fake obeys (text=, exit=, stderr=, sleep=, notxt=1, progress=1...).
    void script(const QString& controlLines);
    // The arguments and the input WAV of the most recent run, as the fake recorded them.
    QStringList lastArguments() const;
    QString lastInputCopy() const;

private:
    QString m_binary;
};

}
