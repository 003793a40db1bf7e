// Owns the X11 clipboard with chosen contents, the way another application would, for tests.
//
// Usage: clipboardowner TYPE FILE [TYPE FILE ...]
//
// Offers each FILE's bytes under its MIME TYPE on the CLIPBOARD selection, prints "ready" on
// standard output, and keeps serving the selection until terminated.

#include <QApplication>
#include <QClipboard>
#include <QFile>
#include <QMimeData>

#include <cstdio>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    if (argc < 3 || argc % 2 == 0) {
        std::fprintf(stderr, "usage: clipboardowner TYPE FILE [TYPE FILE ...]\n");
        return 2;
    }
    auto contents = new QMimeData;
    for (int index = 1; index + 1 < argc; index += 2) {
        QFile file(QString::fromLocal8Bit(argv[index + 1]));
        if (!file.open(QIODevice::ReadOnly)) {
            std::fprintf(stderr, "clipboardowner: cannot read %s\n", argv[index + 1]);
            return 1;
        }
        contents->setData(QString::fromLocal8Bit(argv[index]), file.readAll());
    }
    QGuiApplication::clipboard()->setMimeData(contents, QClipboard::Clipboard);
    std::printf("ready\n");
    std::fflush(stdout);
    return app.exec();
}
