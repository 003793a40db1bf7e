#include "TestSupport.h"

#include "Platform/Linux/Audio/InputDevices.h"

#include <QAudioDevice>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QMediaDevices>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <QtEndian>

#include <algorithm>
#include <utility>

namespace TestSupport {

namespace {
bool pactl(const QStringList& arguments, QString* output = nullptr)
{
    QProcess process;
    process.start("pactl", arguments);
    const bool ok = process.waitForFinished(10000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (output)
        *output = QString::fromUtf8(process.readAllStandardOutput()).trimmed();
    return ok;
}
}

void isolateUserFolders()
{
    static const QTemporaryDir root(QDir::tempPath() + "/voxaria-test-XXXXXX");
    for (const auto& [variable, folder] : {std::pair{"HOME", "home"}, {"XDG_DATA_HOME", "home/.local/share"},
             {"XDG_CONFIG_HOME", "home/.config"}, {"XDG_CACHE_HOME", "home/.cache"}, {"TMPDIR", "tmp"}}) {
        QDir().mkpath(root.filePath(folder));
        qputenv(variable, root.filePath(folder).toUtf8());
    }
    // A whisper-cli installed on PATH must not stand in for the one a test took away.
    QStringList path = qEnvironmentVariable("PATH").split(QLatin1Char(':'));
    path.removeIf([](const QString& folder) { return QFileInfo::exists(folder + "/whisper-cli"); });
    qputenv("PATH", path.join(QLatin1Char(':')).toUtf8());
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
    waitUntil([] { return false; }, duration);
}

QString testDataPath(const QString& relative)
{
    return QStringLiteral(VOXARIA_TESTDATA_DIR "/") + relative;
}

QString fakesPath(const QString& name)
{
    return QStringLiteral(VOXARIA_FAKES_DIR "/") + name;
}

bool writeFile(const QString& path, const QByteArray& bytes, bool executable)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
        return false;
    return !executable || file.setPermissions(file.permissions() | QFileDevice::ExeOwner | QFileDevice::ExeUser);
}

bool hasX11()
{
    return !qEnvironmentVariableIsEmpty("DISPLAY") && QGuiApplication::platformName() == QLatin1String("xcb");
}

bool hasPulseAudio()
{
    return pactl({"info"});
}

QString pulseListing(const QStringList& what)
{
    QString listing;
    pactl(QStringList{"list"} + what, &listing);
    return listing;
}

bool playIntoMicrophone(const QString& path)
{
    QProcess player;
    player.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    player.start("paplay", {"--latency-msec=20", path});
    // Keep the event loop alive meanwhile: engines deliver on the main thread.
    return waitUntil([&] { return player.state() == QProcess::NotRunning; }, std::chrono::minutes(1))
        && player.exitStatus() == QProcess::NormalExit && player.exitCode() == 0;
}

double audioDuration(const QString& path)
{
    QProcess probe;
    probe.start("ffprobe", {"-v", "error", "-show_entries", "format=duration", "-of", "csv=p=0", path});
    probe.waitForFinished();
    return probe.readAllStandardOutput().trimmed().toDouble();
}

WavInfo readWav(const QString& path)
{
    QFile file(path);
    WavInfo info;
    const QByteArray header = file.open(QIODevice::ReadOnly) ? file.read(44) : QByteArray();
    if (header.size() < 44 || !header.startsWith("RIFF") || header.mid(8, 8) != "WAVEfmt " || header.mid(36, 4) != "data")
        return info;
    const auto u16 = [&](int offset) { return qFromLittleEndian<quint16>(header.constData() + offset); };
    const auto u32 = [&](int offset) { return qFromLittleEndian<quint32>(header.constData() + offset); };
    info = {false, u16(20), u16(22), int(u32(24)), u16(34), u32(40)};
    info.valid = u32(4) == 36 + info.dataBytes && file.size() == 44 + info.dataBytes;
    return info;
}

QStringList dictationFiles(const QString& folder)
{
    const QDir dir(folder.isEmpty() ? QDir::tempPath() : folder);
    QStringList paths;
    for (const QString& name : dir.entryList({"voxaria-*"}, QDir::Files))
        paths << dir.filePath(name);
    return paths;
}

void EngineAnswers::start(TranscriptionEngine& engine)
{
    const auto note = [this] { onMainThread = onMainThread && QThread::currentThread() == qApp->thread(); };
    engine.start(
        [this, note](const QString& text) {
            note();
            partials << text;
        },
        [this, note](const QString& text) {
            note();
            finals << text;
        },
        [this, note](const Error& error) {
            note();
            errors << error.description();
        });
}

QString EngineAnswers::startFailure(TranscriptionEngine& engine)
{
    try {
        start(engine);
    } catch (const Error& error) {
        return error.description();
    }
    return "started";
}

Headset::Headset()
    : m_source(QStringLiteral("voxaria_headset_%1").arg(QCoreApplication::applicationPid()))
{
    pactl({"load-module", "module-remap-source", "master=voxaria_speaker.monitor", "source_name=" + m_source}, &m_module);
    pactl({"set-default-source", m_source});
    // Qt learns of new sources a moment later; the microphone is picked from its list.
    waitUntil([this] { return isPlugged(); }, std::chrono::seconds(10));
}

Headset::~Headset()
{
    unplug();
    pactl({"set-default-source", "voxaria_mic"});
}

bool Headset::isPlugged() const
{
    const QList<QAudioDevice> inputs = QMediaDevices::audioInputs();
    return !m_module.isEmpty()
        && std::any_of(inputs.begin(), inputs.end(), [this](const QAudioDevice& input) { return input.id() == m_source.toUtf8(); });
}

bool Headset::unplug()
{
    return !m_module.isEmpty() && pactl({"unload-module", std::exchange(m_module, QString())});
}

bool Headset::fallSilent()
{
    return pactl({"suspend-source", m_source, "1"});
}

NoMicrophone::NoMicrophone()
{
    for (const QString& line : pulseListing({"modules", "short"}).split(QLatin1Char('\n'))) {
        if (line.contains(QLatin1String("source_name=voxaria_mic")) && pactl({"unload-module", line.section(QLatin1Char('\t'), 0, 0)}))
            m_arguments = line.section(QLatin1Char('\t'), 2);
    }
    waitUntil([] { return !InputDevices::anyListed(); });
}

NoMicrophone::~NoMicrophone()
{
    pactl({"load-module", "module-remap-source", m_arguments});
    pactl({"set-default-source", "voxaria_mic"});
    waitUntil([] { return InputDevices::anyListed(); });
}

FakeWhisper::FakeWhisper()
    : m_binary(QCoreApplication::applicationDirPath() + "/whisper-cli")
{
    QFile::remove(m_binary);
    QFile::copy(fakesPath("whisper-cli"), m_binary); // executable as in the repository
    script({});
}

FakeWhisper::~FakeWhisper()
{
    for (const char* suffix : {"", ".control", ".lastargs", ".lastinput.wav", ".runtime", ".terminated"})
        QFile::remove(m_binary + QLatin1String(suffix));
}

QStringList FakeWhisper::lastArguments() const
{
    QFile file(m_binary + ".lastargs");
    // One argument a line, each line ended; an empty argument is an empty line.
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).chopped(1).split(QLatin1Char('\n')) : QStringList();
}

}
