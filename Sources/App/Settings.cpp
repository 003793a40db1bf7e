#include "Settings.h"

namespace {
constexpr auto kEngine = "engine";
constexpr auto kWhisperModelFileName = "whisperModelFileName";
constexpr auto kHotKey = "hotKey";
constexpr auto kLocaleIdentifier = "localeIdentifier";
constexpr auto kPreferOnDevice = "preferOnDevice";
constexpr auto kPlaySounds = "playSounds";
}

Settings& Settings::shared()
{
    static Settings instance;
    return instance;
}

QString Settings::applicationId()
{
    return QStringLiteral("app.voxaria.Voxaria");
}

Settings::Settings()
    : m_defaults(QSettings::NativeFormat, QSettings::UserScope, applicationId())
{
}

QString Settings::stringValue(const char* key, const QString& fallback) const
{
    // Another process (or the user) may have changed the file since our last read.
    m_defaults.sync();
    const QVariant value = m_defaults.value(QLatin1String(key));
    return value.isValid() ? value.toString() : fallback;
}

bool Settings::boolValue(const char* key) const
{
    m_defaults.sync();
    const QVariant value = m_defaults.value(QLatin1String(key));
    return value.isValid() ? value.toBool() : true;
}

TranscriptionEngineKind Settings::engine() const
{
    return TranscriptionEngineKind::fromRawValue(stringValue(kEngine, {})).value_or(TranscriptionEngineKind::whisper);
}

void Settings::setEngine(TranscriptionEngineKind engine)
{
    m_defaults.setValue(QLatin1String(kEngine), engine.rawValue());
}

QString Settings::whisperModelFileName() const
{
    return stringValue(kWhisperModelFileName, QStringLiteral("ggml-large-v3-turbo-q5_0.bin"));
}

void Settings::setWhisperModelFileName(const QString& fileName)
{
    m_defaults.setValue(QLatin1String(kWhisperModelFileName), fileName);
}

HotKey Settings::hotKey() const
{
    return HotKey::fromRawValue(stringValue(kHotKey, {})).value_or(HotKey::rightOption);
}

void Settings::setHotKey(HotKey key)
{
    m_defaults.setValue(QLatin1String(kHotKey), key.rawValue());
}

QString Settings::localeIdentifier() const
{
    return stringValue(kLocaleIdentifier, QStringLiteral("pt-BR"));
}

void Settings::setLocaleIdentifier(const QString& identifier)
{
    m_defaults.setValue(QLatin1String(kLocaleIdentifier), identifier);
}

bool Settings::preferOnDevice() const
{
    return boolValue(kPreferOnDevice);
}

void Settings::setPreferOnDevice(bool on)
{
    m_defaults.setValue(QLatin1String(kPreferOnDevice), on);
}

bool Settings::playSounds() const
{
    return boolValue(kPlaySounds);
}

void Settings::setPlaySounds(bool on)
{
    m_defaults.setValue(QLatin1String(kPlaySounds), on);
}
