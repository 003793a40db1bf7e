#include "HistoryFiles.h"

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

QByteArray read(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

}
