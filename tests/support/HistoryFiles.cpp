#include "HistoryFiles.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace HistoryFiles {

QByteArray json(const QList<HistoryStore::Entry>& entries)
{
    QJsonArray array;
    for (const HistoryStore::Entry& entry : entries) {
        array.append(QJsonObject{{"text", entry.text}, {"appName", entry.appName},
                                 {"id", entry.id.toString(QUuid::WithoutBraces)}, {"date", entry.date}});
    }
    return QJsonDocument(array).toJson(QJsonDocument::Indented);
}

void write(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
        qFatal("cannot write the test file %s", qPrintable(path));
}

QByteArray read(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

}
