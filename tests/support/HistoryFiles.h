#pragma once

#include "History/HistoryStore.h"

// History files made by a generic JSON writer rather than the store's own encoder, so a test can
// hand the store any file it likes (written with TestSupport::writeFile).
namespace HistoryFiles {
QByteArray json(const QList<HistoryStore::Entry>& entries);
QByteArray read(const QString& path);
}
