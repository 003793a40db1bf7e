#include "AppRun.h"

#include "HeadlessSway.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcessEnvironment>
#include <QSettings>

namespace {

bool copyExecutable(const QString& from, const QString& to)
{
    QFile::remove(to);
    return QFile::copy(from, to) && QFile::setPermissions(to, QFile::permissions(to) | QFileDevice::ExeOwner);
}

}

AppRun::AppRun(const QString& program)
    : m_root(QDir::tempPath() + "/voxaria-run-XXXXXX")
    , m_binary(m_root.path() + "/bin/voxaria")
{
    for (const char* folder : {"bin", "home/.local/share/Voxaria", "home/.config", "home/.cache", "tmp"})
        QDir().mkpath(m_root.filePath(folder));
    // A copy in a folder of its own: beside the build's voxaria is the real whisper-cli, and only the
    // whisper-cli a test installs may be beside the program it runs.
    copyExecutable(program, m_binary);
    QObject::connect(&m_process, &QProcess::readyReadStandardError, &m_process, [this] { readLog(); });
}

AppRun::~AppRun()
{
    stop();
}

// The native store of the program's settings domain on Linux: an INI file named after it.
void AppRun::setSetting(const QString& key, const QVariant& value)
{
    QSettings(root() + "/home/.config/app.voxaria.Voxaria.conf", QSettings::IniFormat).setValue(key, value);
}

QVariant AppRun::setting(const QString& key) const
{
    return QSettings(root() + "/home/.config/app.voxaria.Voxaria.conf", QSettings::IniFormat).value(key);
}

void AppRun::useFakeWhisper(const QString& control)
{
    installWhisper(TestSupport::fakesPath("whisper-cli"));
    TestSupport::writeFile(root() + "/bin/whisper-cli.control", control.toUtf8());
}

void AppRun::useWhisperStandIn(const QByteArray& script)
{
    TestSupport::writeFile(root() + "/whisper-cli.script", script);
    installWhisper(root() + "/whisper-cli.script");
}

void AppRun::installWhisper(const QString& program)
{
    copyExecutable(program, root() + "/bin/whisper-cli");
    TestSupport::writeFile(dataFolder() + "/models/ggml-large-v3-turbo-q5_0.bin", "not a real model; the fake does not read it");
}

void AppRun::runAs(uid_t uid, gid_t gid)
{
    m_user = {uid, gid};
    // The harness's PulseAudio answers other users only on the socket it shares with them.
    const QString sharedPulse = qEnvironmentVariable("VOXARIA_HARNESS_PULSE_SERVER");
    if (!sharedPulse.isEmpty())
        setEnvironment("PULSE_SERVER", sharedPulse);
}

bool AppRun::start()
{
    if (m_user) {
        if (!TestSupport::handOver(root(), m_user->first, m_user->second))
            return false;
        TestSupport::startAs(m_process, m_user->first, m_user->second);
    }
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const auto& [variable, folder] : {std::pair{"HOME", "/home"}, {"XDG_DATA_HOME", "/home/.local/share"},
             {"XDG_CONFIG_HOME", "/home/.config"}, {"XDG_CACHE_HOME", "/home/.cache"}, {"TMPDIR", "/tmp"}})
        environment.insert(variable, root() + folder);
    environment.insert("QT_LOGGING_RULES", "voxaria.*.debug=true");
    environment.remove("QT_QPA_PLATFORM");
    environment.insert(m_environment);
    m_process.setProcessEnvironment(environment);
    const int from = lineCount(); // a run before this one logged the same
    m_process.start(m_binary, {});
    // Generous: a build under a sanitizer on a loaded machine takes seconds to come up. Why a start
    // failed goes into the log the failing test prints.
    if (!m_process.waitForStarted(10000)) {
        m_lines << "[test] the program did not start: " + m_process.errorString();
        return false;
    }
    if (waitForLog("watching modifier keys", std::chrono::seconds(30), from))
        return true;
    m_lines << (m_process.state() == QProcess::NotRunning
            ? QStringLiteral("[test] the program ended with code %1 before watching the keys").arg(m_process.exitCode())
            : QStringLiteral("[test] the program did not watch the keys within 30 s"));
    return false;
}

bool AppRun::waitForExit(std::chrono::milliseconds timeout)
{
    return TestSupport::waitUntil([&] { return m_process.state() == QProcess::NotRunning; }, timeout);
}

void AppRun::stop()
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!waitForExit(std::chrono::seconds(5))) {
        m_process.kill();
        m_process.waitForFinished(2000);
    }
    readLog();
}

void AppRun::readLog()
{
    m_partialLine += m_process.readAllStandardError();
    for (qsizetype end = 0; (end = m_partialLine.indexOf('\n')) >= 0; m_partialLine.remove(0, end + 1))
        m_lines << QString::fromUtf8(m_partialLine.left(end));
}

bool AppRun::waitForLog(const QString& fragment, std::chrono::milliseconds timeout, int fromLine)
{
    return TestSupport::waitUntil([&] { return !m_lines.mid(fromLine).filter(fragment).isEmpty(); }, timeout);
}

bool ReceivingWindow::start()
{
    m_process.start(QStringLiteral(VOXARIA_HELPER_receiver), {outputPath()});
    if (!TestSupport::waitUntil([&] { return m_process.canReadLine(); }, std::chrono::seconds(10)))
        return false;
    const QString line = QString::fromUtf8(m_process.readLine()).trimmed(); // "ready WINDOW_ID"
    m_windowId = line.section(QLatin1Char(' '), 1, 1).toULongLong();
    return line.startsWith("ready");
}

bool ReceivingWindow::start(HeadlessSway& sway, OnSway kind)
{
    if (kind == OnSway::terminal) {
        m_process.setProcessEnvironment(sway.clientEnvironment());
        // Raw and silent: every byte typed or pasted reaches the file as it comes, and only once.
        m_process.start("foot", {"sh", "-c", "stty -icanon -echo && exec cat > \"$0\"", outputPath()});
        return sway.waitForFocus("foot");
    }
    return start(sway, kind == OnSway::wayland ? "wayland" : "xcb");
}

bool ReceivingWindow::start(const HeadlessCompositor& compositor, const QString& platform)
{
    QProcessEnvironment environment = compositor.clientEnvironment();
    environment.insert("QT_QPA_PLATFORM", platform);
    m_process.setProcessEnvironment(environment);
    return start();
}

bool ReceivingWindow::waitForText(const QString& expected, std::chrono::milliseconds timeout)
{
    return TestSupport::waitUntil([&] { return text().contains(expected, Qt::CaseInsensitive); }, timeout);
}

namespace Desktop {

QString screenshotFolder()
{
    const QString folder = qEnvironmentVariable("VOXARIA_SCREENSHOT_DIR", QCoreApplication::applicationDirPath());
    QDir().mkpath(folder);
    return folder;
}

bool screenshot(const QString& fileName)
{
    return QProcess::execute("import", {"-window", "root", screenshotFolder() + '/' + fileName}) == 0;
}

// xdotool's answer to a search, waiting with the event loop running.
static QStringList search(const QStringList& arguments)
{
    QProcess xdotool;
    xdotool.start("xdotool", QStringList{"search", "--onlyvisible"} + arguments);
    TestSupport::waitUntil([&] { return xdotool.state() == QProcess::NotRunning; }, std::chrono::seconds(10));
    return QString::fromUtf8(xdotool.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
}

bool clickTrayIcon()
{
    // The icon is the program's one window that is not top-level: it sits inside the tray host.
    QStringList icons = search({"--class", "^voxaria$"});
    for (const QString& topLevel : search({"--maxdepth", "1", "--class", "^voxaria$"}))
        icons.removeAll(topLevel);
    return !icons.isEmpty() && QProcess::execute("xdotool", {"mousemove", "--window", icons.first(), "8", "8", "click", "1"}) == 0;
}

bool waitForWindow(const QString& title, std::chrono::milliseconds timeout)
{
    return TestSupport::waitUntil([&] { return !search({"--maxdepth", "1", "--name", '^' + title + '$'}).isEmpty(); }, timeout);
}

}
