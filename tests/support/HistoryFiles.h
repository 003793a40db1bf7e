#pragma once

#include "HistoryStore.h"

#include <QByteArray>
#include <QList>
#include <QString>

namespace HistoryFiles {

// A history file as any JSON writer would produce it (not the store's own encoder), so a test can
// hand the store a file of its choosing.
QByteArray json(const QList<HistoryStore::Entry>& entries);
void write(const QString& path, const QByteArray& bytes);
QByteArray read(const QString& path);

// `count` entries, newest first, one minute apart, with texts "ditado <n>" (n = count - 1 first).
QList<HistoryStore::Entry> numberedEntries(int count);

// A fresh, empty folder for one test's history file.
QString freshFolder();

}
