#pragma once

#include <QByteArray>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>
#include <QTemporaryDir>

#include <initializer_list>
#include <memory>
#include <optional>

#include <sys/types.h>

// What every headless compositor of the tests shares: a folder of its own (runtime folder, home,
// log), the user it runs as (a root test runs it as "nobody"), and its clipboard read and written
// through wl-clipboard (or the programs a server names instead). HeadlessSway, HeadlessKWin and
// ExtDataControlServer start the servers themselves.
class HeadlessCompositor {
public:
    virtual ~HeadlessCompositor();

    // Starts the server and waits until it answers; false with failure() saying why.
    virtual bool start() = 0;

    // Why start() failed, with the compositor's own log.
    QString failure() const { return m_failure; }
    QString log() const;

    uid_t uid() const { return m_uid; }
    gid_t gid() const { return m_gid; }
    QString runtimeFolder() const;
    QString waylandSocket() const { return m_waylandSocket; } // absolute path: WAYLAND_DISPLAY accepts it
    // What makes a program part of this session (e.g. for AppRun::setEnvironment).
    virtual QProcessEnvironment sessionVariables() const = 0;
    // This process's environment with those, less QT_QPA_PLATFORM: for a QProcess of the session.
    QProcessEnvironment clientEnvironment() const;

    // Puts `data` on the clipboard as `mimeType`; a wl-copy owns it in the background until replaced.
    bool copy(const QByteArray& data, const QString& mimeType);
    QStringList clipboardTypes();
    std::optional<QByteArray> paste(const QString& mimeType);

protected:
    // `name` names the folder and the log ("sway", "kwin").
    explicit HeadlessCompositor(const QString& name);

    // Empty when these programs are installed and this user can run a compositor here (ourselves,
    // or "nobody" for root); otherwise why not.
    static QString unavailableReason(std::initializer_list<const char*> programs);
    static QString userUnavailableReason();
    // What the compositor itself runs with: its home, runtime folder, PATH and a UTF-8 locale.
    QProcessEnvironment compositorEnvironment() const;
    // A Wayland session of this server's, on `desktop` when named (XDG_CURRENT_DESKTOP).
    QProcessEnvironment waylandSession(const QString& desktop = {}) const;
    // Takes the user and makes the runtime folder and home; false (with the failure) when it cannot.
    bool prepareFolder();
    // A program of this session run to its end (as the session's user when `asSessionUser`); its
    // standard output, or nothing if it failed.
    std::optional<QByteArray> run(const QString& program, const QStringList& arguments, bool asSessionUser = false);
    bool fail(const QString& why);
    // The programs, with their arguments, that own the clipboard with standard input's bytes, write
    // its bytes of one type, and list its types.
    virtual QStringList copyCommand(const QString& mimeType) const;
    virtual QStringList pasteCommand(const QString& mimeType) const;
    virtual QStringList typesCommand() const;
    // The Wayland socket in the runtime folder, once the compositor made it.
    bool findWaylandSocket();
    QString folder() const { return m_folder.path(); }
    QString filePath(const QString& name) const { return m_folder.filePath(name); }

    QProcess m_compositor;

private:
    void dropClipboardOwner();

    QTemporaryDir m_folder;
    QString m_name;
    uid_t m_uid = 0;
    gid_t m_gid = 0;
    std::unique_ptr<QProcess> m_clipboardOwner;
    QString m_waylandSocket, m_failure;
};

namespace TestSupport {
// Makes `program` start as this user, with no supplementary groups (a no-op for our own user).
void startAs(QProcess& program, uid_t uid, gid_t gid);
// Gives `folder` and everything in it to this user, and lets every user reach it from the root
// of the file system (search permission only on the folders above it).
bool handOver(const QString& folder, uid_t uid, gid_t gid);
}
