// Owns the X11 clipboard with chosen contents, the way another application would, for tests.
// Usage: clipboardowner TYPE BASE64 [TYPE BASE64 ...]: offers each BASE64's bytes as its MIME TYPE,
// prints "ready" and serves the clipboard until terminated.

#include <QApplication>
#include <QClipboard>
#include <QMimeData>

#include <cstdio>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    if (argc < 3 || argc % 2 == 0)
        return 2;
    auto contents = new QMimeData;
    for (int index = 1; index + 1 < argc; index += 2)
        contents->setData(QString::fromLocal8Bit(argv[index]), QByteArray::fromBase64(argv[index + 1]));
    QGuiApplication::clipboard()->setMimeData(contents, QClipboard::Clipboard);
    std::printf("ready\n");
    std::fflush(stdout);
    return app.exec();
}
