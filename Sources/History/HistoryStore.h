#pragma once

#include <QDateTime>
#include <QList>
#include <QObject>
#include <QString>
#include <QUuid>

// The list of past dictations, newest first, kept in `history.json` in the data folder. Every change
// rewrites the whole file and then emits didChange(). Main thread only.
class HistoryStore : public QObject {
    Q_OBJECT
public:
    // One dictation. `date` is seconds since 2001-01-01 00:00:00 UTC, kept as the double the file
    // holds so that a save and a load give back exactly the same value.
    struct Entry {
        QUuid id;
        double date = 0;
        QString appName;
        QString text;

        QDateTime dateTime() const;
        bool operator==(const Entry&) const = default;
    };

    // add() trims the list to this many entries, dropping the oldest.
    static constexpr int maximumEntries = 200;
    // Seconds between the Unix epoch and 2001-01-01 00:00:00 UTC.
    static constexpr double referenceDateOffset = 978307200.0;

    // ~/.local/share/Voxaria/history.json (the data folder as it is now).
    static QString defaultFileLocation();
    // A store over the given file, loaded at once. The folder is created by the first save.
    explicit HistoryStore(QString fileLocation, QObject* parent = nullptr);

    const QList<Entry>& entries() const { return m_entries; }

    // Stores the arguments as given (no trimming), newest first, and saves.
    void add(const QString& text, const QString& appName);
    // Saves even when no entry has this id, so every caller sees a didChange().
    void remove(const QUuid& id);
    void clear();

signals:
    // After every save, whether or not the file could be written.
    void didChange();

private:
    // The current time as seconds since 2001-01-01 UTC, with sub-millisecond precision.
    static double now();
    void load();
    bool hasCopyOf(const QByteArray& bytes) const;
    void keepCopyOfCorruptFile() const;
    void save();

    QString m_fileLocation;
    QList<Entry> m_entries;
};
