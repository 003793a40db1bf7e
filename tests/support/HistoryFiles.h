#pragma once

#include "DesktopApps.h"
#include "History/HistoryStore.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

// History files made by a generic JSON writer rather than the store's own encoder, so a test can
// hand the store any file it likes (written with TestSupport::writeFile).
namespace HistoryFiles {

inline QByteArray json(const QList<HistoryStore::Entry>& entries)
{
    QJsonArray array;
    for (const HistoryStore::Entry& entry : entries) {
        array.append(QJsonObject{
            {"text", entry.text}, {"appName", entry.appName}, {"id", entry.id.toString(QUuid::WithoutBraces)}, {"date", entry.date}});
    }
    return QJsonDocument(array).toJson(QJsonDocument::Indented);
}

inline QByteArray read(const QString& path)
{
    return DesktopApps::readAll(path);
}

}
