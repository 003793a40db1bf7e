#include "Settings.h"

#include "Shared/AppPaths.h"
#include "Shared/Logging.h"

#include <QSettings>

#include <memory>

namespace {
constexpr auto kEngine = "engine";
constexpr auto kWhisperModelFileName = "whisperModelFileName";
constexpr auto kHotKey = "hotKey";
constexpr auto kLocaleIdentifier = "localeIdentifier";
constexpr auto kPreferOnDevice = "preferOnDevice";
constexpr auto kPlaySounds = "playSounds";

// A store of its own for every access, rather than one shared object: QSettings objects are
// reentrant, not thread-safe, and Qt lets distinct objects on the same file be used from several
// threads at once, each seeing the others' changes immediately. A short-lived one belongs to the
// one thread that made it. When made, it reads the file again if the file changed on disk, so a
// value written by another process or by hand is seen at the next read. A shared object behind a
// mutex would not be enough: Qt saves its pending changes later from its own thread's event loop,
// outside any lock of ours.
std::unique_ptr<QSettings> openStore()
{
    return std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope, AppPaths::applicationId());
}

QVariant readValue(const char* key)
{
    return openStore()->value(QLatin1String(key));
}

void writeValue(const char* key, const QVariant& value)
{
    const std::unique_ptr<QSettings> store = openStore();
    store->setValue(QLatin1String(key), value);
    // Written now, so another process sees it at once, and a failure can be told.
    store->sync();
    if (store->status() != QSettings::NoError)
        qCWarning(lcSettings) << "cannot save the setting" << key << "to" << store->fileName();
}
}

Settings& Settings::shared()
{
    static Settings instance;
    return instance;
}

Settings::Settings() = default;

QString Settings::stringValue(const char* key, const QString& fallback) const
{
    const QVariant value = readValue(key);
    return value.isValid() ? value.toString() : fallback;
}

bool Settings::boolValue(const char* key) const
{
    const QVariant value = readValue(key);
    return value.isValid() ? value.toBool() : true;
}

TranscriptionEngineKind Settings::engine() const
{
    return TranscriptionEngineKind::fromRawValue(stringValue(kEngine, {})).value_or(TranscriptionEngineKind::whisper);
}

void Settings::setEngine(TranscriptionEngineKind engine)
{
    writeValue(kEngine, engine.rawValue());
}

QString Settings::whisperModelFileName() const
{
    return stringValue(kWhisperModelFileName, QStringLiteral("ggml-large-v3-turbo-q5_0.bin"));
}

void Settings::setWhisperModelFileName(const QString& fileName)
{
    writeValue(kWhisperModelFileName, fileName);
}

HotKey Settings::hotKey() const
{
    return HotKey::fromRawValue(stringValue(kHotKey, {})).value_or(HotKey::rightOption);
}

void Settings::setHotKey(HotKey key)
{
    writeValue(kHotKey, key.rawValue());
}

QString Settings::localeIdentifier() const
{
    return stringValue(kLocaleIdentifier, QStringLiteral("pt-BR"));
}

void Settings::setLocaleIdentifier(const QString& identifier)
{
    writeValue(kLocaleIdentifier, identifier);
}

bool Settings::preferOnDevice() const
{
    return boolValue(kPreferOnDevice);
}

void Settings::setPreferOnDevice(bool on)
{
    writeValue(kPreferOnDevice, on);
}

bool Settings::playSounds() const
{
    return boolValue(kPlaySounds);
}

void Settings::setPlaySounds(bool on)
{
    writeValue(kPlaySounds, on);
}
