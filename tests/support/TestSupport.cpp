#include "TestSupport.h"

#include <QCoreApplication>
#include <QGuiApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

namespace TestSupport {

namespace {
QTemporaryDir& root()
{
    static QTemporaryDir dir(QDir::tempPath() + QStringLiteral("/voxaria-test-XXXXXX"));
    return dir;
}
}

void isolateUserFolders()
{
    const QString base = root().path();
    const auto set = [&](const char* variable, const QString& sub) {
        const QString path = base + QLatin1Char('/') + sub;
        QDir().mkpath(path);
        qputenv(variable, path.toUtf8());
    };
    set("HOME", QStringLiteral("home"));
    set("XDG_DATA_HOME", QStringLiteral("home/.local/share"));
    set("XDG_CONFIG_HOME", QStringLiteral("home/.config"));
    set("XDG_CACHE_HOME", QStringLiteral("home/.cache"));
    set("TMPDIR", QStringLiteral("tmp"));
}

QString isolatedRoot()
{
    return root().path();
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout)
{
    QDeadlineTimer deadline(timeout);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(1);
    }
    return true;
}

void spin(std::chrono::milliseconds duration)
{
    QDeadlineTimer deadline(duration);
    while (!deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(1);
    }
}

QString testDataPath(const QString& relative)
{
    return QStringLiteral(VOXARIA_TESTDATA_DIR "/") + relative;
}

QString fakesPath(const QString& name)
{
    return QStringLiteral(VOXARIA_FAKES_DIR "/") + name;
}

bool hasX11()
{
    return !qEnvironmentVariableIsEmpty("DISPLAY") && QGuiApplication::platformName() == QLatin1String("xcb");
}

bool hasPulseAudio()
{
    QProcess pactl;
    pactl.start(QStringLiteral("pactl"), {QStringLiteral("info")});
    return pactl.waitForFinished() && pactl.exitStatus() == QProcess::NormalExit && pactl.exitCode() == 0;
}

bool playIntoMicrophone(const QString& path)
{
    QProcess player;
    player.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    player.start(QStringLiteral("paplay"), {QStringLiteral("--latency-msec=20"), path});
    // Keep the event loop alive meanwhile: engines deliver on the main thread.
    return waitUntil([&] { return player.state() == QProcess::NotRunning; }, std::chrono::minutes(1))
        && player.exitStatus() == QProcess::NormalExit && player.exitCode() == 0;
}

double audioDuration(const QString& path)
{
    QProcess probe;
    probe.start(QStringLiteral("ffprobe"), {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-show_entries"),
                                            QStringLiteral("format=duration"), QStringLiteral("-of"), QStringLiteral("csv=p=0"), path});
    probe.waitForFinished();
    return probe.readAllStandardOutput().trimmed().toDouble();
}

FakeWhisper::FakeWhisper()
    : m_binary(QCoreApplication::applicationDirPath() + QStringLiteral("/whisper-cli"))
{
    QFile::remove(m_binary);
    QFile::copy(fakesPath(QStringLiteral("whisper-cli")), m_binary);
    QFile::setPermissions(m_binary, QFile::permissions(m_binary) | QFileDevice::ExeOwner | QFileDevice::ExeUser);
    script({});
}

FakeWhisper::~FakeWhisper()
{
    for (const char* suffix : {"", ".control", ".lastargs", ".lastinput.wav"})
        QFile::remove(m_binary + QLatin1String(suffix));
}

void FakeWhisper::script(const QString& controlLines)
{
    QFile control(m_binary + QStringLiteral(".control"));
    control.open(QIODevice::WriteOnly | QIODevice::Truncate);
    control.write(controlLines.toUtf8());
}

QStringList FakeWhisper::lastArguments() const
{
    QFile file(m_binary + QStringLiteral(".lastargs"));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QString FakeWhisper::lastInputCopy() const
{
    return m_binary + QStringLiteral(".lastinput.wav");
}

}
