// A clipboard manager of the X11 desktop, for tests: it remembers the newest text copied and takes
// the CLIPBOARD back with it at once whenever the selection is left without an owner, printing
// "refilled" each time. Prints "ready" once it watches.

#include <QApplication>
#include <QClipboard>
#include <QMimeData>

#include <cstdio>

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    QClipboard* clipboard = QGuiApplication::clipboard();
    QString newest;
    QObject::connect(clipboard, &QClipboard::changed, [&](QClipboard::Mode mode) {
        if (mode != QClipboard::Clipboard || clipboard->ownsClipboard())
            return;
        const QMimeData* contents = clipboard->mimeData(QClipboard::Clipboard);
        if (contents && !contents->formats().isEmpty()) {
            if (contents->hasText())
                newest = contents->text();
            return;
        }
        if (newest.isEmpty())
            return;
        clipboard->setText(newest, QClipboard::Clipboard);
        std::printf("refilled\n");
        std::fflush(stdout);
    });
    std::printf("ready\n");
    std::fflush(stdout);
    return application.exec();
}
