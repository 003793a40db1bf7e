#pragma once

#include "HotKey.h"
#include "TranscriptionEngineKind.h"

#include <QMutex>
#include <QString>
#include <QVariant>

#include <memory>

class QSettings;

// The six user preferences, and what the program remembers having asked. The store is read again only when its file changed (by this
// program, by another, or by hand), so a choice made in the menu takes effect at the very next read while a read per key event costs one
// stat(). Safe to read and write from any thread.
class Settings {
public:
    // The preferences kept in the file at `filePath` (the user's is AppPaths::settingsFile()).
    explicit Settings(QString filePath);
    ~Settings();
    Settings(const Settings&) = delete;
    Settings& operator=(const Settings&) = delete;

    TranscriptionEngineKind engine() const;
    void setEngine(TranscriptionEngineKind engine);

    QString whisperModelFileName() const;
    void setWhisperModelFileName(const QString& fileName);

    HotKey hotKey() const;
    void setHotKey(HotKey key);

    QString localeIdentifier() const;
    void setLocaleIdentifier(const QString& identifier);

    bool preferOnDevice() const;
    void setPreferOnDevice(bool on);

    bool playSounds() const;
    void setPlaySounds(bool on);

    // Whether the user answered "Agora não" to a current yt-dlp in place of the system's outdated one.
    bool ytDlpUpdateDeclined() const;
    void setYtDlpUpdateDeclined(bool declined);

private:
    std::unique_ptr<QSettings> openStore() const;
    QVariant storedValue(const char* key) const;
    QString stringValue(const char* key, const QString& fallback) const;
    bool boolValue(const char* key) const;
    void setValue(const char* key, const QVariant& value);

    // The file as last read: what identifies its version on disk, and every value it held.
    struct Snapshot;
    const QString m_filePath;
    mutable QMutex m_mutex;
    mutable std::unique_ptr<Snapshot> m_snapshot;
};
