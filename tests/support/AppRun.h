#pragma once

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

// One run of the real voxaria program with folders of its own (HOME, XDG data/config/cache and
// TMPDIR under a fresh temporary folder), its log collected line by line for the test to follow.
class AppRun {
public:
    // `program` is the build to run: the real one, or one of its test builds.
    explicit AppRun(const QString& program = QStringLiteral(VOXARIA_APP_BINARY));
    ~AppRun();

    QString root() const { return m_root.path(); }
    // The program's own copy, which this run starts.
    QString program() const { return m_binary; }
    // ~/.local/share/Voxaria of this run.
    QString dataFolder() const;
    QString temporaryFolder() const;

    // Writes one preference as the settings menu would, before or while the program runs.
    void setSetting(const QString& key, const QVariant& value);
    // One preference as the program last wrote it (absent: an invalid value).
    QVariant setting(const QString& key) const;

    // Puts the fake whisper-cli beside the program's copy, where it looks first, and a
    // model file installed. The fake obeys `control` (see tests/fakes/whisper-cli).
    void useFakeWhisper(const QString& control);
    // The same with a program of the caller's own (e.g. a script that stamps the time) as whisper-cli.
    void useWhisperStandIn(const QByteArray& script);
    // The copy of its input that the fake whisper-cli keeps from its last run.
    QString whisperInputCopy() const { return whisperFolder() + "/whisper-cli.lastinput.wav"; }

    // A variable the program will see, over the harness's own (e.g. to look like another session).
    void setEnvironment(const QString& name, const QString& value) { m_environment.insert(name, value); }
    void setEnvironment(const QProcessEnvironment& variables) { m_environment.insert(variables); }
    // Runs the program as this user (e.g. a compositor's, whose key bindings must reach it), its
    // folders handed over to that user at start, its sound through the harness's shared PulseAudio.
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
    // The whole log, for a failure message.
    std::string logText() const { return m_lines.join(QLatin1Char('\n')).toStdString(); }

private:
    void installWhisper(const QString& program);
    // The folder of the program's copy and its whisper-cli.
    QString whisperFolder() const;
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
    ReceivingWindow();
    ~ReceivingWindow();

    // Starts it on the harness's X server and waits until it has the focus.
    bool start();
    // Where it runs on a sway session: a Qt window native there or through Xwayland, or a foot
    // terminal whose command writes down whatever is typed or pasted into it.
    enum class OnSway { wayland, xwayland, terminal };
    bool start(HeadlessSway& sway, OnSway kind);
    // A Qt window of this compositor's session, through this Qt platform ("wayland": native).
    bool start(const HeadlessCompositor& compositor, const QString& platform = "wayland");
    quint64 windowId() const { return m_windowId; }
    // The file the window rewrites with its whole text after every change.
    QString outputPath() const { return m_folder.filePath("received.txt"); }
    QString text() const;
    bool waitForText(const QString& expected, std::chrono::milliseconds timeout);

private:
    bool waitUntilReady();

    QTemporaryDir m_folder;
    QProcess m_process;
    quint64 m_windowId = 0;
};

namespace Desktop {
// Where screenshots go: VOXARIA_SCREENSHOT_DIR when set, else the test program's folder.
QString screenshotFolder();
// The whole screen, saved under that folder.
bool screenshot(const QString& fileName);
// Clicks the program's icon in the tray.
bool clickTrayIcon();
// Whether a visible window with this exact title shows up within the time.
bool waitForWindow(const QString& title, std::chrono::milliseconds timeout);
}
