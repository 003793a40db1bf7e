#include "HeadlessCompositor.h"

#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <filesystem>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

using namespace std::chrono_literals;

namespace {

struct SessionUser {
    uid_t uid;
    gid_t gid;
};

// Ourselves, unless we are root: then "nobody", whom compositors accept and who owns nothing of ours.
std::optional<SessionUser> sessionUser()
{
    if (::geteuid() != 0)
        return SessionUser{::geteuid(), ::getegid()};
    const passwd* nobody = ::getpwnam("nobody");
    if (!nobody)
        return std::nullopt;
    // Inside a user namespace the overflow id may show in /etc/passwd without being mapped to anyone.
    QProcess probe;
    TestSupport::startAs(probe, nobody->pw_uid, nobody->pw_gid);
    probe.start("true", {});
    if (!probe.waitForFinished(10000) || probe.exitStatus() != QProcess::NormalExit || probe.exitCode() != 0)
        return std::nullopt;
    return SessionUser{nobody->pw_uid, nobody->pw_gid};
}

}

namespace TestSupport {

void startAs(QProcess& program, uid_t uid, gid_t gid)
{
    if (uid == ::geteuid())
        return;
    program.setChildProcessModifier([uid, gid] {
        if (::setgroups(0, nullptr) != 0 || ::setgid(gid) != 0 || ::setuid(uid) != 0)
            ::_exit(126); // never run a test program as root by mistake
    });
}

bool handOver(const QString& folder, uid_t uid, gid_t gid)
{
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path top = fs::absolute(QFile::encodeName(folder).toStdString());
    bool handed = ::lchown(top.c_str(), uid, gid) == 0;
    for (auto entry = fs::recursive_directory_iterator(top, error); !error && entry != fs::recursive_directory_iterator();
         entry.increment(error))
        handed = ::lchown(entry->path().c_str(), uid, gid) == 0 && handed;
    for (fs::path above = top.parent_path(); above != above.root_path(); above = above.parent_path())
        fs::permissions(above, fs::perms::others_exec, fs::perm_options::add, error);
    return handed && !error;
}

}

HeadlessCompositor::HeadlessCompositor(const QString& name)
    : m_folder(QDir::tempPath() + QStringLiteral("/voxaria-%1-XXXXXX").arg(name))
    , m_name(name)
{
    m_compositor.setProcessChannelMode(QProcess::MergedChannels);
    m_compositor.setStandardOutputFile(m_folder.filePath(name + ".log"));
}

HeadlessCompositor::~HeadlessCompositor()
{
    dropClipboardOwner();
    if (m_compositor.state() == QProcess::NotRunning)
        return;
    m_compositor.terminate();
    if (!m_compositor.waitForFinished(5000)) {
        m_compositor.kill();
        m_compositor.waitForFinished(2000);
    }
}

QString HeadlessCompositor::unavailableReason(std::initializer_list<const char*> programs)
{
    for (const char* program : programs) {
        if (QStandardPaths::findExecutable(QLatin1String(program)).isEmpty())
            return QStringLiteral("%1 is not installed (scripts/install-deps.sh installs it)").arg(QLatin1String(program));
    }
    return userUnavailableReason();
}

QProcessEnvironment HeadlessCompositor::compositorEnvironment() const
{
    QProcessEnvironment environment;
    environment.insert("HOME", m_folder.filePath("home"));
    environment.insert("XDG_RUNTIME_DIR", runtimeFolder());
    environment.insert("PATH", qEnvironmentVariable("PATH", "/usr/bin:/bin"));
    environment.insert("LANG", "C.UTF-8");
    return environment;
}

QProcessEnvironment HeadlessCompositor::waylandSession(const QString& desktop) const
{
    QProcessEnvironment environment;
    environment.insert("WAYLAND_DISPLAY", waylandSocket());
    environment.insert("XDG_RUNTIME_DIR", runtimeFolder());
    environment.insert("XDG_SESSION_TYPE", "wayland");
    if (!desktop.isEmpty())
        environment.insert("XDG_CURRENT_DESKTOP", desktop);
    return environment;
}

QString HeadlessCompositor::userUnavailableReason()
{
    return sessionUser() ? QString() : "the compositor refuses to run as root, and no other user (\"nobody\") can be switched to here";
}

bool HeadlessCompositor::prepareFolder()
{
    const std::optional<SessionUser> user = sessionUser();
    if (!user)
        return fail(userUnavailableReason());
    m_uid = user->uid;
    m_gid = user->gid;
    QDir().mkpath(runtimeFolder());
    QDir().mkpath(m_folder.filePath("home"));
    return QFile::setPermissions(runtimeFolder(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner)
        || fail("cannot prepare the folder " + m_folder.path());
}

QString HeadlessCompositor::runtimeFolder() const
{
    return m_folder.filePath("runtime");
}

QString HeadlessCompositor::log() const
{
    QFile file(m_folder.filePath(m_name + ".log"));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

bool HeadlessCompositor::fail(const QString& why)
{
    m_failure = why + QStringLiteral("\n--- %1's log ---\n").arg(m_name) + log();
    return false;
}

bool HeadlessCompositor::findWaylandSocket()
{
    const QStringList found = QDir(runtimeFolder()).entryList({"wayland-*[0-9]"}, QDir::System | QDir::Files);
    if (!found.isEmpty())
        m_waylandSocket = runtimeFolder() + QLatin1Char('/') + found.first();
    return !found.isEmpty();
}

QProcessEnvironment HeadlessCompositor::clientEnvironment() const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove("QT_QPA_PLATFORM");
    environment.insert(sessionVariables());
    return environment;
}

std::optional<QByteArray> HeadlessCompositor::run(const QString& program, const QStringList& arguments, bool asSessionUser)
{
    QProcess process;
    process.setProcessEnvironment(clientEnvironment());
    if (asSessionUser)
        TestSupport::startAs(process, m_uid, m_gid);
    // Quiet: wl-paste's "No selection" is an answer here, not news.
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(program, arguments);
    process.closeWriteChannel();
    // The event loop keeps running meanwhile: the other end may be a process the test drives.
    const bool ended = TestSupport::waitUntil([&] { return process.state() == QProcess::NotRunning; }, 20s);
    if (!ended || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        process.kill();
        process.waitForFinished(2000);
        return std::nullopt;
    }
    return process.readAllStandardOutput();
}

void HeadlessCompositor::dropClipboardOwner()
{
    if (!m_clipboardOwner)
        return;
    m_clipboardOwner->kill();
    m_clipboardOwner->waitForFinished(2000);
    m_clipboardOwner.reset();
}

bool HeadlessCompositor::copy(const QByteArray& data, const QString& mimeType)
{
    dropClipboardOwner();
    m_clipboardOwner = std::make_unique<QProcess>();
    m_clipboardOwner->setProcessEnvironment(clientEnvironment());
    m_clipboardOwner->setProcessChannelMode(QProcess::ForwardedChannels);
    const QStringList command = copyCommand(mimeType);
    m_clipboardOwner->start(command.first(), command.mid(1));
    m_clipboardOwner->write(data);
    m_clipboardOwner->closeWriteChannel();
    // Owned once the clipboard hands out these very bytes (an older owner may offer the same type).
    return TestSupport::waitUntil([&] { return paste(mimeType) == data; }, 20s);
}

QStringList HeadlessCompositor::clipboardTypes()
{
    const QStringList command = typesCommand();
    const std::optional<QByteArray> types = run(command.first(), command.mid(1));
    return types ? QString::fromUtf8(*types).split(QLatin1Char('\n'), Qt::SkipEmptyParts) : QStringList();
}

std::optional<QByteArray> HeadlessCompositor::paste(const QString& mimeType)
{
    const QStringList command = pasteCommand(mimeType);
    return run(command.first(), command.mid(1));
}

QStringList HeadlessCompositor::copyCommand(const QString& mimeType) const
{
    return {"wl-copy", "--foreground", "-t", mimeType};
}

QStringList HeadlessCompositor::pasteCommand(const QString& mimeType) const
{
    return {"wl-paste", "-n", "-t", mimeType};
}

QStringList HeadlessCompositor::typesCommand() const
{
    return {"wl-paste", "-l"};
}
