#include "HeadlessSway.h"

#include "Platform/Linux/Wayland/CompositorFrontApplication.h"

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

// Ourselves, unless we are root: then "nobody", whom sway accepts and who owns nothing of ours.
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
    probe.start(QStringLiteral("true"), {});
    if (!probe.waitForFinished(10000) || probe.exitStatus() != QProcess::NormalExit || probe.exitCode() != 0)
        return std::nullopt;
    return SessionUser{nobody->pw_uid, nobody->pw_gid};
}

QString userName(uid_t uid)
{
    const passwd* entry = ::getpwuid(uid);
    return entry ? QString::fromLocal8Bit(entry->pw_name) : QString::number(uid);
}

QString firstEntry(const QString& folder, const QString& pattern)
{
    const QStringList found = QDir(folder).entryList({pattern}, QDir::System | QDir::Files);
    return found.isEmpty() ? QString() : folder + QLatin1Char('/') + found.first();
}

// The node that has the keyboard focus in sway's tree of outputs, workspaces and windows.
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

QString HeadlessSway::unavailableReason()
{
    for (const char* program : {"sway", "Xwayland", "wtype", "wl-copy", "wl-paste", "swaymsg", "xhost", "xdpyinfo"}) {
        if (QStandardPaths::findExecutable(QLatin1String(program)).isEmpty())
            return QStringLiteral("%1 is not installed (scripts/install-deps.sh installs it)").arg(QLatin1String(program));
    }
    if (!sessionUser())
        return QStringLiteral("sway refuses to run as root, and no other user (\"nobody\") can be switched to here");
    return {};
}

HeadlessSway::HeadlessSway(const QStringList& extraConfig, const QString& dictationKey)
    : m_folder(QDir::tempPath() + QStringLiteral("/voxaria-sway-XXXXXX"))
    , m_extraConfig(extraConfig)
    , m_dictationKey(dictationKey)
{
    m_sway.setProcessChannelMode(QProcess::MergedChannels);
    m_sway.setStandardOutputFile(m_folder.filePath(QStringLiteral("sway.log")));
}

HeadlessSway::~HeadlessSway()
{
    dropClipboardOwner();
    if (m_sway.state() == QProcess::NotRunning)
        return;
    // Xwayland ends with its compositor; what the bindings started ended on its own.
    m_sway.terminate();
    if (!m_sway.waitForFinished(5000)) {
        m_sway.kill();
        m_sway.waitForFinished(2000);
    }
}

QString HeadlessSway::runtimeFolder() const
{
    return m_folder.filePath(QStringLiteral("runtime"));
}

QString HeadlessSway::log() const
{
    QFile file(m_folder.filePath(QStringLiteral("sway.log")));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

bool HeadlessSway::fail(const QString& why)
{
    m_failure = why + QStringLiteral("\n--- sway's log ---\n") + log();
    return false;
}

bool HeadlessSway::start()
{
    const std::optional<SessionUser> user = sessionUser();
    if (!user)
        return fail(unavailableReason());
    m_uid = user->uid;
    m_gid = user->gid;
    const QString displayFile = m_folder.filePath(QStringLiteral("xdisplay"));
    // A copy the sway user can reach wherever the build lies (a clone under /root, say).
    const QString voxaria = m_folder.filePath(QStringLiteral("voxaria"));
    // Xwayland lets in only its own user: the test (root) is let in too, and only then is the
    // display written down, so a display in that file answers.
    QStringList config{
        QStringLiteral("xwayland force"),
        QStringLiteral("exec sh -c 'xhost +si:localuser:%1 >/dev/null && echo \"$DISPLAY\" > %2.new && mv %2.new %2'")
            .arg(userName(::geteuid()), displayFile),
        QStringLiteral("bindsym --no-repeat %1 exec %2 --press").arg(m_dictationKey, voxaria),
        QStringLiteral("bindsym --release %1 exec %2 --release").arg(m_dictationKey, voxaria),
    };
    config << m_extraConfig;
    const QString configFile = m_folder.filePath(QStringLiteral("config"));
    QDir().mkpath(runtimeFolder());
    QDir().mkpath(m_folder.filePath(QStringLiteral("home")));
    if (!QFile::copy(QStringLiteral(VOXARIA_APP_BINARY), voxaria)
        || !TestSupport::writeFile(configFile, config.join(QLatin1Char('\n')).toUtf8() + '\n')
        || !QFile::setPermissions(runtimeFolder(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner)
        || !TestSupport::handOver(m_folder.path(), m_uid, m_gid))
        return fail(QStringLiteral("cannot prepare sway's folder ") + m_folder.path());

    QProcessEnvironment environment;
    environment.insert(QStringLiteral("HOME"), m_folder.filePath(QStringLiteral("home")));
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtimeFolder());
    environment.insert(QStringLiteral("PATH"), qEnvironmentVariable("PATH", QStringLiteral("/usr/bin:/bin")));
    environment.insert(QStringLiteral("LANG"), QStringLiteral("C.UTF-8"));
    environment.insert(QStringLiteral("WLR_BACKENDS"), QStringLiteral("headless"));
    environment.insert(QStringLiteral("WLR_LIBINPUT_NO_DEVICES"), QStringLiteral("1"));
    environment.insert(QStringLiteral("WLR_RENDERER"), QStringLiteral("pixman"));
    m_sway.setProcessEnvironment(environment);
    TestSupport::startAs(m_sway, m_uid, m_gid);
    m_sway.start(QStringLiteral("sway"), {QStringLiteral("-c"), configFile});
    if (!m_sway.waitForStarted(10000))
        return fail(QStringLiteral("sway did not start: ") + m_sway.errorString());

    const bool up = TestSupport::waitUntil(
        [&] {
            m_waylandSocket = firstEntry(runtimeFolder(), QStringLiteral("wayland-*[0-9]"));
            m_swaySocket = firstEntry(runtimeFolder(), QStringLiteral("sway-ipc.*.sock"));
            return m_sway.state() == QProcess::Running && !m_waylandSocket.isEmpty() && !m_swaySocket.isEmpty()
                && QFile::exists(displayFile);
        },
        60s);
    if (!up)
        return fail(
            QStringLiteral("sway (state %1) did not offer its Wayland socket, IPC socket and X display within 60 s").arg(m_sway.state()));
    QFile file(displayFile);
    file.open(QIODevice::ReadOnly);
    m_xDisplay = QString::fromUtf8(file.readAll()).trimmed();
    if (!run(QStringLiteral("xdpyinfo"), {QStringLiteral("-display"), m_xDisplay}))
        return fail(QStringLiteral("Xwayland on display %1 does not answer").arg(m_xDisplay));
    return true;
}

QProcessEnvironment HeadlessSway::sessionVariables() const
{
    QProcessEnvironment environment;
    environment.insert(QStringLiteral("WAYLAND_DISPLAY"), m_waylandSocket);
    environment.insert(QStringLiteral("DISPLAY"), m_xDisplay);
    environment.insert(QStringLiteral("SWAYSOCK"), m_swaySocket);
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtimeFolder());
    environment.insert(QStringLiteral("XDG_SESSION_TYPE"), QStringLiteral("wayland"));
    environment.insert(QStringLiteral("XDG_CURRENT_DESKTOP"), QStringLiteral("sway"));
    return environment;
}

QProcessEnvironment HeadlessSway::clientEnvironment() const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.remove(QStringLiteral("QT_QPA_PLATFORM"));
    environment.insert(sessionVariables());
    return environment;
}

std::optional<QByteArray> HeadlessSway::run(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.setProcessEnvironment(clientEnvironment());
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

bool HeadlessSway::type(const QStringList& wtypeArguments)
{
    return run(QStringLiteral("wtype"), wtypeArguments).has_value();
}

void HeadlessSway::dropClipboardOwner()
{
    if (!m_clipboardOwner)
        return;
    m_clipboardOwner->kill();
    m_clipboardOwner->waitForFinished(2000);
    m_clipboardOwner.reset();
}

bool HeadlessSway::copy(const QByteArray& data, const QString& mimeType)
{
    dropClipboardOwner();
    m_clipboardOwner = std::make_unique<QProcess>();
    m_clipboardOwner->setProcessEnvironment(clientEnvironment());
    m_clipboardOwner->setProcessChannelMode(QProcess::ForwardedChannels);
    m_clipboardOwner->start(QStringLiteral("wl-copy"), {QStringLiteral("--foreground"), QStringLiteral("-t"), mimeType});
    m_clipboardOwner->write(data);
    m_clipboardOwner->closeWriteChannel();
    // Owned once the clipboard hands out these very bytes (an older owner may offer the same type).
    return TestSupport::waitUntil([&] { return paste(mimeType) == data; }, 20s);
}

QStringList HeadlessSway::clipboardTypes()
{
    const std::optional<QByteArray> types = run(QStringLiteral("wl-paste"), {QStringLiteral("-l")});
    return types ? QString::fromUtf8(*types).split(QLatin1Char('\n'), Qt::SkipEmptyParts) : QStringList();
}

std::optional<QByteArray> HeadlessSway::paste(const QString& mimeType)
{
    return run(QStringLiteral("wl-paste"), {QStringLiteral("-n"), QStringLiteral("-t"), mimeType});
}

QString HeadlessSway::focusedApplication()
{
    // Asked the way Voxaria asks before a paste.
    const auto front = CompositorFrontApplication(CompositorFrontApplication::Protocol::sway, swaySocket()).windowClass();
    return front ? front->className : QString();
}

bool HeadlessSway::waitForFocus(const QString& application, std::chrono::milliseconds timeout)
{
    return TestSupport::waitUntil([&] { return focusedApplication() == application; }, timeout);
}
