#pragma once

#include <QByteArray>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>
#include <QTemporaryDir>

#include <chrono>
#include <memory>
#include <optional>

#include <sys/types.h>

// A sway compositor with no screen (wlroots' headless backend) and its Xwayland, in a folder of its
// own, with the dictation key bound to `voxaria --press` / `--release` as a user would bind it.
// Sway refuses to run as root, so a root test runs it as the "nobody" user; the Voxaria under test
// must then run as that user too, since its key socket answers only its own user.
class HeadlessSway {
public:
    // Empty when sway can run here; otherwise why not (a program missing, no user to run it as).
    static QString unavailableReason();
    static bool available() { return unavailableReason().isEmpty(); }

    // `extraConfig`: more lines of sway configuration, after the dictation key bindings.
    explicit HeadlessSway(const QStringList& extraConfig = {}, const QString& dictationKey = QStringLiteral("Alt_R"));
    ~HeadlessSway();

    // Starts sway and waits until its Wayland socket, its IPC socket and Xwayland answer.
    bool start();
    // Why start() failed, with sway's own log.
    QString failure() const { return m_failure; }
    QString log() const;

    uid_t uid() const { return m_uid; }
    gid_t gid() const { return m_gid; }
    QString runtimeFolder() const;
    QString waylandSocket() const { return m_waylandSocket; } // absolute path: WAYLAND_DISPLAY accepts it
    QString xDisplay() const { return m_xDisplay; }
    QString swaySocket() const { return m_swaySocket; }
    // What makes a program part of this session: WAYLAND_DISPLAY, DISPLAY, SWAYSOCK, XDG_RUNTIME_DIR,
    // XDG_SESSION_TYPE and XDG_CURRENT_DESKTOP (e.g. for AppRun::setEnvironment).
    QProcessEnvironment sessionVariables() const;
    // This process's environment with those, less QT_QPA_PLATFORM: for a QProcess of the session.
    QProcessEnvironment clientEnvironment() const;

    // Runs wtype with these arguments (e.g. {"-P", "Alt_R", "-s", "800", "-p", "Alt_R"}) to its end.
    // A Qt window native on Wayland loses the first key of each new wtype unless it waits a moment
    // for its keymap: start text with {"-s", "300", ...}.
    bool type(const QStringList& wtypeArguments);
    // Puts `data` on the clipboard as `mimeType`; a wl-copy owns it in the background until replaced.
    bool copy(const QByteArray& data, const QString& mimeType);
    QStringList clipboardTypes();
    std::optional<QByteArray> paste(const QString& mimeType);

    // The app_id (Wayland) or class (Xwayland) of the window with the keyboard focus, empty if none.
    QString focusedApplication();
    bool waitForFocus(const QString& application, std::chrono::milliseconds timeout = std::chrono::seconds(10));

private:
    // A program of this session run to its end; its standard output, or nothing if it failed.
    std::optional<QByteArray> run(const QString& program, const QStringList& arguments);
    bool fail(const QString& why);
    void dropClipboardOwner();

    QTemporaryDir m_folder;
    QStringList m_extraConfig;
    QString m_dictationKey;
    uid_t m_uid = 0;
    gid_t m_gid = 0;
    QProcess m_sway;
    std::unique_ptr<QProcess> m_clipboardOwner;
    QString m_waylandSocket, m_xDisplay, m_swaySocket, m_failure;
};

namespace TestSupport {
// Makes `program` start as this user, with no supplementary groups (a no-op for our own user).
void startAs(QProcess& program, uid_t uid, gid_t gid);
// Gives `folder` and everything in it to this user, and lets every user reach it from the root
// of the file system (search permission only on the folders above it).
bool handOver(const QString& folder, uid_t uid, gid_t gid);
}
