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

QString configFolder(const QString& root)
{
    return root + "/home/.config";
}

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
        QDir().mkpath(root() + QLatin1Char('/') + QLatin1String(folder));
    // A copy in a folder of its own: beside the build's voxaria is the real whisper-cli, and only the
    // whisper-cli a test installs may be beside the program it runs.
    copyExecutable(program, m_binary);
    m_process.setProcessChannelMode(QProcess::SeparateChannels);
    QObject::connect(&m_process, &QProcess::readyReadStandardError, &m_process, [this] { readLog(); });
}

AppRun::~AppRun()
{
    stop();
}

QString AppRun::dataFolder() const
{
    return root() + "/home/.local/share/Voxaria";
}

QString AppRun::temporaryFolder() const
{
    return root() + "/tmp";
}

void AppRun::setSetting(const QString& key, const QVariant& value)
{
    // The native store of the program's settings domain on Linux: an INI file named after it.
    QSettings store(configFolder(root()) + "/app.voxaria.Voxaria.conf", QSettings::IniFormat);
    store.setValue(key, value);
    store.sync();
}

QVariant AppRun::setting(const QString& key) const
{
    QSettings store(configFolder(root()) + "/app.voxaria.Voxaria.conf", QSettings::IniFormat);
    return store.value(key);
}

void AppRun::useFakeWhisper(const QString& control)
{
    installWhisper(TestSupport::fakesPath("whisper-cli"));
    TestSupport::writeFile(whisperFolder() + "/whisper-cli.control", control.toUtf8());
}

void AppRun::useWhisperStandIn(const QByteArray& script)
{
    const QString path = root() + "/whisper-cli.script";
    TestSupport::writeFile(path, script);
    installWhisper(path);
}

void AppRun::installWhisper(const QString& program)
{
    copyExecutable(program, whisperFolder() + "/whisper-cli");

    TestSupport::writeFile(dataFolder() + "/models/ggml-large-v3-turbo-q5_0.bin", "not a real model; the fake does not read it");
}

QString AppRun::whisperFolder() const
{
    return QFileInfo(m_binary).absolutePath();
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
    environment.insert("HOME", root() + "/home");
    environment.insert("XDG_DATA_HOME", root() + "/home/.local/share");
    environment.insert("XDG_CONFIG_HOME", configFolder(root()));
    environment.insert("XDG_CACHE_HOME", root() + "/home/.cache");
    environment.insert("TMPDIR", temporaryFolder());
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
    qsizetype end = 0;
    while ((end = m_partialLine.indexOf('\n')) >= 0) {
        m_lines << QString::fromUtf8(m_partialLine.left(end));
        m_partialLine.remove(0, end + 1);
    }
}

bool AppRun::waitForLog(const QString& fragment, std::chrono::milliseconds timeout, int fromLine)
{
    return TestSupport::waitUntil(
        [&] {
            for (qsizetype i = fromLine; i < m_lines.size(); ++i) {
                if (m_lines.at(i).contains(fragment))
                    return true;
            }
            return false;
        },
        timeout);
}

ReceivingWindow::ReceivingWindow() = default;

ReceivingWindow::~ReceivingWindow()
{
    m_process.kill();
    m_process.waitForFinished(2000);
}

bool ReceivingWindow::start()
{
    m_process.start(QStringLiteral(VOXARIA_HELPER_receiver), {outputPath()});
    return waitUntilReady();
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

bool ReceivingWindow::waitUntilReady()
{
    const bool ready = TestSupport::waitUntil([&] { return m_process.canReadLine(); }, std::chrono::seconds(10));
    if (!ready)
        return false;
    const QString line = QString::fromUtf8(m_process.readLine()).trimmed();
    // On Wayland the id is no X window's, only the focus counts.
    m_windowId = line.section(QLatin1Char(' '), 1, 1).toULongLong();
    return line.startsWith("ready");
}

QString ReceivingWindow::text() const
{
    QFile file(outputPath());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll());
}

bool ReceivingWindow::waitForText(const QString& expected, std::chrono::milliseconds timeout)
{
    return TestSupport::waitUntil([&] { return text().contains(expected, Qt::CaseInsensitive); }, timeout);
}

namespace Desktop {

QString screenshotFolder()
{
    const QString chosen = qEnvironmentVariable("VOXARIA_SCREENSHOT_DIR");
    const QString folder = chosen.isEmpty() ? QCoreApplication::applicationDirPath() : chosen;
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
    const QStringList arguments{"--maxdepth", "1", "--name", '^' + title + '$'};
    return TestSupport::waitUntil([&] { return !search(arguments).isEmpty(); }, timeout) || !search(arguments).isEmpty();
}

}
