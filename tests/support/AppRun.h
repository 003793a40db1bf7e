#pragma once

#include "DesktopApps.h"

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QVariant>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <sys/types.h>

class HeadlessCompositor;
class HeadlessSway;

// One run of the real voxaria program with folders of its own (HOME, XDG folders and TMPDIR under
// a fresh temporary folder), its log collected line by line for the test to follow.
class AppRun {
public:
    // `program` is the build to run: the real one, or one of its test builds.
    explicit AppRun(const QString& program = QStringLiteral(VOXARIA_APP_BINARY));
    ~AppRun();

    QString root() const { return m_root.path(); }
    QString program() const { return m_binary; } // the program's own copy, which this run starts
    QString dataFolder() const { return root() + "/home/.local/share/Voxaria"; }
    QString temporaryFolder() const { return root() + "/tmp"; }

    // One preference written as the settings menu would, or read as the program last wrote it.
    void setSetting(const QString& key, const QVariant& value);
    QVariant setting(const QString& key) const;

    // Puts the fake whisper-cli (obeying `control`, see tests/fakes/whisper-cli) beside the program's
    // copy, where it looks first, and a model file installed.
    void useFakeWhisper(const QString& control);
    // The same with a program of the caller's own (e.g. a script that stamps the time) as whisper-cli.
    void useWhisperStandIn(const QByteArray& script);
    // The copy of its input that the fake whisper-cli keeps from its last run.
    QString whisperInputCopy() const { return root() + "/bin/whisper-cli.lastinput.wav"; }

    // A variable the program will see, over the harness's own (e.g. to look like another session).
    void setEnvironment(const QString& name, const QString& value) { m_environment.insert(name, value); }
    void setEnvironment(const QProcessEnvironment& variables) { m_environment.insert(variables); }
    // Runs the program as this user (a compositor's, whose key bindings must reach it), its folders
    // handed over to that user at start, its sound through the harness's shared PulseAudio.
    void runAs(uid_t uid, gid_t gid);

    // Starts the program and waits until it watches the dictation key.
    bool start();
    bool waitForExit(std::chrono::milliseconds timeout);
    void stop();
    QProcess& process() { return m_process; }

    // Waits until a log line containing `fragment` has been written since the line numbered
    // `fromLine` (0: since the start), and answers whether it came.
    bool waitForLog(const QString& fragment, std::chrono::milliseconds timeout, int fromLine = 0);
    int lineCount() const { return int(m_lines.size()); }
    QStringList log() const { return m_lines; }
    std::string logText() const { return m_lines.join(QLatin1Char('\n')).toStdString(); }

private:
    void installWhisper(const QString& program);
    void readLog();

    QTemporaryDir m_root;
    QString m_binary;
    QProcess m_process;
    QProcessEnvironment m_environment;
    std::optional<std::pair<uid_t, gid_t>> m_user;
    QStringList m_lines;
    QByteArray m_partialLine;
};

// The receiving application: a text window of another process that has the keyboard focus.
class ReceivingWindow {
public:
    // Starts it on the harness's X server and waits until it has the focus.
    bool start();
    // On a sway session: a Qt window native there or through Xwayland, or a foot terminal whose
    // command writes down whatever is typed or pasted into it.
    enum class OnSway { wayland, xwayland, terminal };
    bool start(HeadlessSway& sway, OnSway kind);
    // A Qt window of this compositor's session, through this Qt platform ("wayland": native).
    bool start(const HeadlessCompositor& compositor, const QString& platform = "wayland");
    quint64 windowId() const { return m_windowId; } // on Wayland only a handle
    // The file the window rewrites with its whole text after every change.
    QString outputPath() const { return m_folder.filePath("received.txt"); }
    QString text() const { return QString::fromUtf8(DesktopApps::readAll(outputPath())); }
    bool waitForText(const QString& expected, std::chrono::milliseconds timeout);

private:
    QTemporaryDir m_folder;
    DesktopApps::Program m_process;
    quint64 m_windowId = 0;
};

namespace Desktop {
// Where screenshots go: VOXARIA_SCREENSHOT_DIR when set, else the test program's folder.
QString screenshotFolder();
bool screenshot(const QString& fileName); // the whole screen, saved under that folder
bool clickTrayIcon();
// Whether a visible window with this exact title shows up within the time.
bool waitForWindow(const QString& title, std::chrono::milliseconds timeout);
}
