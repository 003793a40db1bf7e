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

// Ourselves, unless we are root: then "nobody", whom compositors accept and who owns nothing of ours.
std::optional<std::pair<uid_t, gid_t>> sessionUser()
{
    if (::geteuid() != 0)
        return std::pair{::geteuid(), ::getegid()};
    const passwd* nobody = ::getpwnam("nobody");
    if (!nobody)
        return std::nullopt;
    // Inside a user namespace the overflow id may show in /etc/passwd without being mapped to anyone.
    QProcess probe;
    TestSupport::startAs(probe, nobody->pw_uid, nobody->pw_gid);
    probe.start("true", {});
    if (!probe.waitForFinished(10000) || probe.exitStatus() != QProcess::NormalExit || probe.exitCode() != 0)
        return std::nullopt;
    return std::pair{nobody->pw_uid, nobody->pw_gid};
}

const char* const kNoUser = "the compositor refuses to run as root, and no other user (\"nobody\") can be switched to here";

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

HeadlessCompositor::HeadlessCompositor(const QString& name, const QString& clipboardHelper)
    : m_folder(QDir::tempPath() + QStringLiteral("/voxaria-%1-XXXXXX").arg(name))
    , m_name(name)
    , m_clipboardHelper(clipboardHelper)
{
    m_compositor.setProcessChannelMode(QProcess::MergedChannels);
    m_compositor.setStandardOutputFile(m_folder.filePath(name + ".log"));
}

HeadlessCompositor::~HeadlessCompositor()
{
    m_clipboardOwner.reset();
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
    return sessionUser() ? QString() : kNoUser;
}

QProcessEnvironment HeadlessCompositor::compositorEnvironment() const
{
    QProcessEnvironment environment;
    environment.insert("HOME", filePath("home"));
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

bool HeadlessCompositor::prepareFolder()
{
    const auto user = sessionUser();
    if (!user)
        return fail(kNoUser);
    std::tie(m_uid, m_gid) = *user;
    QDir().mkpath(filePath("home"));
    return (QDir().mkpath(runtimeFolder())
               && QFile::setPermissions(runtimeFolder(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner))
        || fail("cannot prepare the folder " + folder());
}

bool HeadlessCompositor::launch(
    const QStringList& command, const QProcessEnvironment& environment, const std::function<bool()>& up, const QString& awaited)
{
    if (!TestSupport::handOver(folder(), m_uid, m_gid))
        return fail("cannot hand the folder " + folder() + " over to its user");
    m_compositor.setProcessEnvironment(environment);
    TestSupport::startAs(m_compositor, m_uid, m_gid);
    m_compositor.start(command.first(), command.mid(1));
    const bool ready = TestSupport::waitUntil(
        [&] { return m_compositor.state() == QProcess::Running && !(m_waylandSocket = runtimeEntry("wayland-*[0-9]")).isEmpty() && up(); },
        60s);
    const QString state = m_compositor.state() == QProcess::Running ? QStringLiteral("running") : m_compositor.errorString();
    return ready || fail(QStringLiteral("%1 (%2) did not offer its Wayland socket and %3 within 60 s").arg(m_name, state, awaited));
}

QString HeadlessCompositor::runtimeEntry(const QString& pattern) const
{
    const QStringList found = QDir(runtimeFolder()).entryList({pattern}, QDir::System | QDir::Files);
    return found.isEmpty() ? QString() : runtimeFolder() + QLatin1Char('/') + found.first();
}

QString HeadlessCompositor::log() const
{
    return QString::fromUtf8(DesktopApps::readAll(filePath(m_name + ".log")));
}

bool HeadlessCompositor::fail(const QString& why)
{
    m_failure = why + QStringLiteral("\n--- %1's log ---\n").arg(m_name) + log();
    return false;
}

QProcessEnvironment HeadlessCompositor::clientEnvironment() const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove("QT_QPA_PLATFORM");
    environment.insert(sessionVariables());
    return environment;
}

std::optional<QByteArray> HeadlessCompositor::run(const QStringList& command, bool asSessionUser)
{
    DesktopApps::Program process;
    process.setProcessEnvironment(clientEnvironment());
    if (asSessionUser)
        TestSupport::startAs(process, m_uid, m_gid);
    // Quiet: wl-paste's "No selection" is an answer here, not news.
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(command.first(), command.mid(1));
    process.closeWriteChannel();
    // The event loop keeps running meanwhile: the other end may be a process the test drives.
    const bool ended = TestSupport::waitUntil([&] { return process.state() == QProcess::NotRunning; }, 20s);
    if (!ended || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return std::nullopt;
    return process.readAllStandardOutput();
}

QStringList HeadlessCompositor::clipboardCommand(const QString& action, const QString& mimeType) const
{
    if (!m_clipboardHelper.isEmpty())
        return QStringList{m_clipboardHelper, action} + (mimeType.isEmpty() ? QStringList() : QStringList{mimeType});
    if (action == QLatin1String("copy"))
        return {"wl-copy", "--foreground", "-t", mimeType};
    return action == QLatin1String("paste") ? QStringList{"wl-paste", "-n", "-t", mimeType} : QStringList{"wl-paste", "-l"};
}

bool HeadlessCompositor::copy(const QByteArray& data, const QString& mimeType)
{
    m_clipboardOwner.emplace(); // ending the owner before
    m_clipboardOwner->setProcessEnvironment(clientEnvironment());
    m_clipboardOwner->setProcessChannelMode(QProcess::ForwardedChannels);
    const QStringList command = clipboardCommand("copy", mimeType);
    m_clipboardOwner->start(command.first(), command.mid(1));
    m_clipboardOwner->write(data);
    m_clipboardOwner->closeWriteChannel();
    // Owned once the clipboard hands out these very bytes (an older owner may offer the same type).
    return TestSupport::waitUntil([&] { return paste(mimeType) == data; }, 20s);
}

QStringList HeadlessCompositor::clipboardTypes()
{
    const std::optional<QByteArray> types = run(clipboardCommand("types"));
    return types ? QString::fromUtf8(*types).split(QLatin1Char('\n'), Qt::SkipEmptyParts) : QStringList();
}

std::optional<QByteArray> HeadlessCompositor::paste(const QString& mimeType)
{
    return run(clipboardCommand("paste", mimeType));
}
