#pragma once

#include "History/HistoryStore.h"

// History files written by a generic JSON writer rather than the store's own encoder, so a test can
// hand the store any file it likes.
namespace HistoryFiles {
QByteArray json(const QList<HistoryStore::Entry>& entries);
void write(const QString& path, const QByteArray& bytes);
QByteArray read(const QString& path);
}
