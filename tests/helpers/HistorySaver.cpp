// Saves a history over and over until it is killed, so a test can kill it in the middle of a write.
#include "History/HistoryStore.h"

#include <QCoreApplication>
#include <QString>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 2)
        return 2; // the history file is its one argument
    HistoryStore store(QString::fromLocal8Bit(argv[1]));
    // Long texts make each write take long enough to be caught half-way.
    const QString paragraph = QStringLiteral("Ditado número %1 com acentuação, aspas \" e barras / para o arquivo. ").repeated(20);
    for (int n = 0;; ++n) {
        store.add(paragraph.arg(n), "Editor de texto");
        if (n == 0) {
            std::puts("saving");
            std::fflush(stdout);
        }
    }
}
