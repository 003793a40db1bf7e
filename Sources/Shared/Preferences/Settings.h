#pragma once

#include "HotKey.h"
#include "TranscriptionEngineKind.h"

#include <QString>

// The six user preferences. Nothing is cached: every read asks the store, so a choice made in the
// menu takes effect at the very next read. Safe to read and write from any thread.
class Settings {
public:
    static Settings& shared();

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

private:
    Settings();
    QString stringValue(const char* key, const QString& fallback) const;
    bool boolValue(const char* key) const;
};
