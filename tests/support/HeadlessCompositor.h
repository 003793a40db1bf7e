#pragma once

#include "DesktopApps.h"

#include <QByteArray>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>
#include <QTemporaryDir>

#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>

#include <sys/types.h>

// What every headless compositor of the tests shares: a folder of its own (runtime folder, home,
// log), the user it runs as (a root test runs it as "nobody"), and its clipboard read and written
// through wl-clipboard (or a helper of ours where wl-clipboard cannot speak to the server).
class HeadlessCompositor {
public:
    virtual ~HeadlessCompositor();

    // Starts the server and waits until it answers; false with failure() saying why, with its log.
    virtual bool start() = 0;
    QString failure() const { return m_failure; }
    QString log() const;

    uid_t uid() const { return m_uid; }
    gid_t gid() const { return m_gid; }
    QString runtimeFolder() const { return filePath("runtime"); }
    QString waylandSocket() const { return m_waylandSocket; } // absolute path: WAYLAND_DISPLAY accepts it
    // What makes a program part of this session (e.g. for AppRun::setEnvironment).
    virtual QProcessEnvironment sessionVariables() const = 0;
    // This process's environment with those, less QT_QPA_PLATFORM: for a QProcess of the session.
    QProcessEnvironment clientEnvironment() const;

    // Puts `data` on the clipboard as `mimeType`, owned in the background until replaced.
    bool copy(const QByteArray& data, const QString& mimeType);
    QStringList clipboardTypes();
    std::optional<QByteArray> paste(const QString& mimeType);

protected:
    // `name` names the folder and the log ("sway", "kwin"); `clipboardHelper`, when given, stands in
    // for wl-clipboard with its commands "copy TYPE", "paste TYPE" and "types".
    explicit HeadlessCompositor(const QString& name, const QString& clipboardHelper = {});

    // Empty when these programs are installed and a user can run a compositor here (ourselves, or
    // "nobody" for root); otherwise why not.
    static QString unavailableReason(std::initializer_list<const char*> programs);
    // What the compositor itself runs with: its home, runtime folder, PATH and a UTF-8 locale.
    QProcessEnvironment compositorEnvironment() const;
    // A Wayland session of this server's, on `desktop` when named (XDG_CURRENT_DESKTOP).
    QProcessEnvironment waylandSession(const QString& desktop = {}) const;
    // Takes the user and makes the runtime folder and home; false (with the failure) when it cannot.
    bool prepareFolder();
    // Hands the folder over to the user, starts `command` as that user and waits until it runs, has
    // made its Wayland socket and `up` holds (`awaited` says what that is).
    bool launch(
        const QStringList& command, const QProcessEnvironment& environment, const std::function<bool()>& up, const QString& awaited);
    // A program of this session run to its end (as the session's user when `asSessionUser`); its
    // standard output, or nothing if it failed.
    std::optional<QByteArray> run(const QStringList& command, bool asSessionUser = false);
    bool fail(const QString& why);
    // The first file of the runtime folder matching `pattern`, empty if none yet.
    QString runtimeEntry(const QString& pattern) const;
    QString folder() const { return m_folder.path(); }
    QString filePath(const QString& name) const { return m_folder.filePath(name); }

    QProcess m_compositor;

private:
    QStringList clipboardCommand(const QString& action, const QString& mimeType = {}) const;

    QTemporaryDir m_folder;
    QString m_name, m_clipboardHelper;
    uid_t m_uid = 0;
    gid_t m_gid = 0;
    std::optional<DesktopApps::Program> m_clipboardOwner;
    QString m_waylandSocket, m_failure;
};

namespace TestSupport {
// Makes `program` start as this user, with no supplementary groups (a no-op for our own user).
void startAs(QProcess& program, uid_t uid, gid_t gid);
// Gives `folder` and everything in it to this user, and lets every user reach it from the root
// of the file system (search permission only on the folders above it).
bool handOver(const QString& folder, uid_t uid, gid_t gid);
}
