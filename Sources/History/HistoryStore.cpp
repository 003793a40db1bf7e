#include "HistoryStore.h"

#include "Shared/AppPaths.h"
#include "Shared/Logging.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

#include <charconv>
#include <chrono>
#include <cmath>
#include <optional>

namespace {

// Strings go out as raw UTF-8 with "/" escaped, the form history files have always had, so a file
// saved by this version differs from one saved by an earlier version only where the entries do.
void appendJsonString(QByteArray& out, const QString& value)
{
    static constexpr char hexDigits[] = "0123456789abcdef";
    out.append('"');
    for (const char c : value.toUtf8()) {
        switch (c) {
        case '"': out.append("\\\""); break;
        case '\\': out.append("\\\\"); break;
        case '/': out.append("\\/"); break;
        case '\b': out.append("\\b"); break;
        case '\f': out.append("\\f"); break;
        case '\n': out.append("\\n"); break;
        case '\r': out.append("\\r"); break;
        case '\t': out.append("\\t"); break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                out.append("\\u00");
                out.append(hexDigits[(c >> 4) & 0xF]);
                out.append(hexDigits[c & 0xF]);
            } else {
                out.append(c);
            }
        }
    }
    out.append('"');
}

// The shortest text that reads back as the same double, so dates survive any number of round trips.
bool appendJsonNumber(QByteArray& out, double value)
{
    if (!std::isfinite(value))
        return false;
    char buffer[32];
    const auto result = std::to_chars(std::begin(buffer), std::end(buffer), value);
    if (result.ec != std::errc())
        return false;
    out.append(buffer, result.ptr - buffer);
    return true;
}

std::optional<QByteArray> encode(const QList<HistoryStore::Entry>& entries)
{
    QByteArray out;
    out.reserve(64 + entries.size() * 160);
    out.append('[');
    for (qsizetype i = 0; i < entries.size(); ++i) {
        const HistoryStore::Entry& entry = entries[i];
        if (i > 0)
            out.append(',');
        out.append("{\"id\":");
        appendJsonString(out, entry.id.toString(QUuid::WithoutBraces).toUpper());
        out.append(",\"date\":");
        if (!appendJsonNumber(out, entry.date))
            return std::nullopt;
        out.append(",\"appName\":");
        appendJsonString(out, entry.appName);
        out.append(",\"text\":");
        appendJsonString(out, entry.text);
        out.append('}');
    }
    out.append(']');
    return out;
}

// A short write says nothing about why; the next attempt fails with the reason (a full disk, a
// file-size limit), which then stays in the file's errorString().
bool writeAll(QSaveFile& file, const QByteArray& bytes)
{
    for (qsizetype done = 0; done < bytes.size();) {
        const qint64 written = file.write(bytes.constData() + done, bytes.size() - done);
        if (written <= 0)
            return false;
        done += written;
    }
    return true;
}

// Only the 8-4-4-4-12 form counts as an id; QUuid alone would also take braces and other shapes.
std::optional<QUuid> parseUuid(const QString& text)
{
    if (text.size() != 36)
        return std::nullopt;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text[i];
        const bool hyphenPlace = i == 8 || i == 13 || i == 18 || i == 23;
        const bool isHex = (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
        if (hyphenPlace ? c != u'-' : !isHex)
            return std::nullopt;
    }
    return QUuid::fromString(text);
}

std::optional<HistoryStore::Entry> decodeEntry(const QJsonValue& value)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const QJsonValue id = object.value(QLatin1String("id"));
    const QJsonValue date = object.value(QLatin1String("date"));
    const QJsonValue appName = object.value(QLatin1String("appName"));
    const QJsonValue text = object.value(QLatin1String("text"));
    if (!id.isString() || !date.isDouble() || !appName.isString() || !text.isString())
        return std::nullopt;
    const std::optional<QUuid> uuid = parseUuid(id.toString());
    if (!uuid)
        return std::nullopt;
    return HistoryStore::Entry{*uuid, date.toDouble(), appName.toString(), text.toString()};
}

// One bad element spoils the whole file: a partial history would look complete to the user.
std::optional<QList<HistoryStore::Entry>> decode(const QByteArray& bytes)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !document.isArray())
        return std::nullopt;
    const QJsonArray array = document.array();
    QList<HistoryStore::Entry> entries;
    entries.reserve(array.size());
    for (const auto& value : array) {
        std::optional<HistoryStore::Entry> entry = decodeEntry(value);
        if (!entry)
            return std::nullopt;
        entries.append(std::move(*entry));
    }
    return entries;
}

}

QDateTime HistoryStore::Entry::dateTime() const
{
    const double unixMilliseconds = (date + referenceDateOffset) * 1000.0;
    return QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(std::llround(unixMilliseconds)), Qt::UTC);
}

QString HistoryStore::defaultFileLocation()
{
    return AppPaths::dataFolder() + QStringLiteral("/history.json");
}

double HistoryStore::now()
{
    using namespace std::chrono;
    const duration<double> sinceEpoch = system_clock::now().time_since_epoch();
    return sinceEpoch.count() - referenceDateOffset;
}

HistoryStore::HistoryStore(QString fileLocation, QObject* parent)
    : QObject(parent)
    , m_fileLocation(std::move(fileLocation))
{
    load();
}

void HistoryStore::load()
{
    QFile file(m_fileLocation);
    if (!file.open(QIODevice::ReadOnly))
        return;
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return;
    if (std::optional<QList<Entry>> entries = decode(bytes)) {
        m_entries = std::move(*entries);
        return;
    }
    qCWarning(lcHistory) << "History file" << m_fileLocation << "is not a valid history; starting empty";
    if (!bytes.isEmpty() && !hasCopyOf(bytes))
        keepCopyOfCorruptFile();
}

// Whether an earlier launch already kept these very bytes aside: every launch meets the same corrupt
// file until a save replaces it, and one copy of it is enough.
bool HistoryStore::hasCopyOf(const QByteArray& bytes) const
{
    const QFileInfo history(m_fileLocation);
    const QString pattern = history.fileName() + QStringLiteral(".corrupt-*");
    for (const QFileInfo& copy : history.dir().entryInfoList({pattern}, QDir::Files)) {
        QFile file(copy.filePath());
        if (copy.size() == bytes.size() && file.open(QIODevice::ReadOnly) && file.readAll() == bytes)
            return true;
    }
    return false;
}

// The next save replaces the file, so this copy is the user's only chance to recover its entries.
void HistoryStore::keepCopyOfCorruptFile() const
{
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss-zzz"));
    QString copy = m_fileLocation + QStringLiteral(".corrupt-") + stamp;
    for (int serial = 2; QFileInfo::exists(copy); ++serial)
        copy = m_fileLocation + QStringLiteral(".corrupt-%1-%2").arg(stamp).arg(serial);
    if (QFile::copy(m_fileLocation, copy))
        qCWarning(lcHistory) << "Kept a copy of the unreadable history at" << copy;
    else
        qCWarning(lcHistory) << "Could not keep a copy of the unreadable history at" << copy;
}

void HistoryStore::add(const QString& text, const QString& appName)
{
    m_entries.prepend(Entry{QUuid::createUuid(), now(), appName, text});
    if (m_entries.size() > maximumEntries)
        m_entries.resize(maximumEntries);
    save();
}

void HistoryStore::remove(const QUuid& id)
{
    m_entries.removeIf([&id](const Entry& entry) { return entry.id == id; });
    save();
}

void HistoryStore::clear()
{
    m_entries.clear();
    save();
}

// Written through a temporary file renamed over the old one: a crash at any moment leaves either
// the previous history or the new one, never a torn file. Failures keep the in-memory change and
// still notify, so open views show what the process knows.
void HistoryStore::save()
{
    QDir().mkpath(QFileInfo(m_fileLocation).absolutePath());
    if (const std::optional<QByteArray> bytes = encode(m_entries)) {
        QSaveFile file(m_fileLocation);
        // Unbuffered: QSaveFile commits a temporary file whose buffered flush failed, which would
        // put a torn history in place when the disk fills up.
        const bool written = file.open(QIODevice::WriteOnly | QIODevice::Unbuffered) && writeAll(file, *bytes) && file.commit();
        if (!written)
            qCWarning(lcHistory) << "Could not save the history to" << m_fileLocation << ":" << file.errorString();
    } else {
        qCWarning(lcHistory) << "Could not encode the history; the file was left as it was";
    }
    emit didChange();
}
