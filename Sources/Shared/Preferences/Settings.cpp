#include "Settings.h"

#include "Shared/Logging.h"

#include <QFile>
#include <QHash>
#include <QSettings>

#include <sys/stat.h>

namespace {
constexpr auto kEngine = "engine";
constexpr auto kWhisperModelFileName = "whisperModelFileName";
constexpr auto kHotKey = "hotKey";
constexpr auto kLocaleIdentifier = "localeIdentifier";
constexpr auto kPreferOnDevice = "preferOnDevice";
constexpr auto kPlaySounds = "playSounds";
constexpr auto kYtDlpUpdateDeclined = "ytDlpUpdateDeclined";
}

// A store of its own for every access, rather than one shared object: QSettings objects are
// reentrant, not thread-safe, and Qt lets distinct objects on the same file be used from several
// threads at once, each seeing the others' changes immediately. A short-lived one belongs to the
// one thread that made it. When made, it reads the file again if the file changed on disk, so a
// value written by another process or by hand is seen at the next read. A shared object behind a
// mutex would not be enough: Qt saves its pending changes later from its own thread's event loop,
// outside any lock of ours.
std::unique_ptr<QSettings> Settings::openStore() const
{
    return std::make_unique<QSettings>(m_filePath, QSettings::NativeFormat);
}

namespace {

// What tells one version of the file from another: QSettings replaces it by a rename (a new inode),
// an editor may rewrite it in place (a new time or size); a missing file is a version too.
struct FileVersion {
    dev_t device = 0;
    ino_t inode = 0;
    qint64 size = -1;
    qint64 modifiedNs = 0;
    bool operator==(const FileVersion&) const = default;
};

FileVersion versionOf(const QByteArray& path)
{
    struct stat info { };
    if (::stat(path.constData(), &info) != 0)
        return {};
    return {info.st_dev, info.st_ino, info.st_size, qint64(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec};
}

}

struct Settings::Snapshot {
    QByteArray path;
    FileVersion version;
    QHash<QString, QVariant> values;
};

Settings::Settings(QString filePath)
    : m_filePath(std::move(filePath))
{
}

Settings::~Settings() = default;

QVariant Settings::storedValue(const char* key) const
{
    QMutexLocker lock(&m_mutex);
    if (!m_snapshot) {
        m_snapshot = std::make_unique<Snapshot>();
        m_snapshot->path = QFile::encodeName(m_filePath);
        m_snapshot->version.size = -2; // never a file's: the first read loads
    }
    const FileVersion now = versionOf(m_snapshot->path);
    if (!(now == m_snapshot->version)) {
        const std::unique_ptr<QSettings> store = openStore();
        m_snapshot->values.clear();
        for (const QString& name : store->allKeys())
            m_snapshot->values.insert(name, store->value(name));
        m_snapshot->version = now;
    }
    return m_snapshot->values.value(QLatin1String(key));
}

void Settings::setValue(const char* key, const QVariant& value)
{
    QMutexLocker lock(&m_mutex);
    const std::unique_ptr<QSettings> store = openStore();
    store->setValue(QLatin1String(key), value);
    // Written now, so another process sees it at once, and a failure can be told.
    store->sync();
    if (store->status() != QSettings::NoError)
        qCWarning(lcSettings) << "cannot save the setting" << key << "to" << store->fileName();
    // Read again at the next read, whatever the file system's clock resolution.
    if (m_snapshot)
        m_snapshot->version.size = -2;
}

QString Settings::stringValue(const char* key, const QString& fallback) const
{
    const QVariant found = storedValue(key);
    return found.isValid() ? found.toString() : fallback;
}

bool Settings::boolValue(const char* key) const
{
    const QVariant found = storedValue(key);
    return found.isValid() ? found.toBool() : true;
}

TranscriptionEngineKind Settings::engine() const
{
    return TranscriptionEngineKind::fromRawValue(stringValue(kEngine, {})).value_or(TranscriptionEngineKind::whisper);
}

void Settings::setEngine(TranscriptionEngineKind engine)
{
    setValue(kEngine, engine.rawValue());
}

QString Settings::whisperModelFileName() const
{
    return stringValue(kWhisperModelFileName, QStringLiteral("ggml-large-v3-turbo-q5_0.bin"));
}

void Settings::setWhisperModelFileName(const QString& fileName)
{
    setValue(kWhisperModelFileName, fileName);
}

HotKey Settings::hotKey() const
{
    return HotKey::fromRawValue(stringValue(kHotKey, {})).value_or(HotKey::rightOption);
}

void Settings::setHotKey(HotKey key)
{
    setValue(kHotKey, key.rawValue());
}

QString Settings::localeIdentifier() const
{
    return stringValue(kLocaleIdentifier, QStringLiteral("pt-BR"));
}

void Settings::setLocaleIdentifier(const QString& identifier)
{
    setValue(kLocaleIdentifier, identifier);
}

bool Settings::preferOnDevice() const
{
    return boolValue(kPreferOnDevice);
}

void Settings::setPreferOnDevice(bool on)
{
    setValue(kPreferOnDevice, on);
}

bool Settings::playSounds() const
{
    return boolValue(kPlaySounds);
}

void Settings::setPlaySounds(bool on)
{
    setValue(kPlaySounds, on);
}

bool Settings::ytDlpUpdateDeclined() const
{
    return storedValue(kYtDlpUpdateDeclined).toBool(); // false until it happened
}

void Settings::setYtDlpUpdateDeclined(bool declined)
{
    setValue(kYtDlpUpdateDeclined, declined);
}
