#include "HistoryFiles.h"

#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

namespace HistoryFiles {

QByteArray json(const QList<HistoryStore::Entry>& entries)
{
    QJsonArray array;
    for (const HistoryStore::Entry& entry : entries) {
        array.append(QJsonObject{
            {"text", entry.text},
            {"appName", entry.appName},
            {"id", entry.id.toString(QUuid::WithoutBraces)},
            {"date", entry.date},
        });
    }
    return QJsonDocument(array).toJson(QJsonDocument::Indented);
}

void write(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    ASSERT_EQ(file.write(bytes), bytes.size());
}

QByteArray read(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QList<HistoryStore::Entry> numberedEntries(int count)
{
    QList<HistoryStore::Entry> entries;
    const double newest = 785'000'000.25;
    for (int n = count - 1; n >= 0; --n)
        entries.append({QUuid::createUuid(), newest - 60.0 * (count - 1 - n), QStringLiteral("Editor"), QStringLiteral("ditado %1").arg(n)});
    return entries;
}

QString freshFolder()
{
    static int serial = 0;
    const QString folder = TestSupport::isolatedRoot() + QStringLiteral("/history-%1").arg(++serial);
    QDir(folder).removeRecursively();
    QDir().mkpath(folder);
    return folder;
}

}
