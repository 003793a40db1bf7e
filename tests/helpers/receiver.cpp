// A window that receives what other programs type or paste into it, for tests. Usage: receiver
// OUTPUT_FILE. Shows a text field (window title and class "receiver") that takes the keyboard focus,
// then prints "ready WINDOW_ID" (the X11 window id; on Wayland only a handle). After every change
// it rewrites OUTPUT_FILE with the field's whole text in UTF-8. It runs until terminated.

#include <QApplication>
#include <QPlainTextEdit>
#include <QSaveFile>
#include <QWindow>

#include <cstdio>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName("receiver");
    if (argc != 2)
        return 2;
    // A reader polling the file sees the old or the new text, never half of it.
    const auto write = [output = QString::fromLocal8Bit(argv[1])](const QString& text) {
        QSaveFile file(output);
        if (!file.open(QIODevice::WriteOnly) || file.write(text.toUtf8()) < 0 || !file.commit())
            std::fprintf(stderr, "receiver: cannot write %s\n", qPrintable(output));
    };
    write({});

    QPlainTextEdit field;
    field.setWindowTitle("receiver");
    field.resize(480, 240);
    field.move(40, 40);
    QObject::connect(&field, &QPlainTextEdit::textChanged, &field, [&] { write(field.toPlainText()); });

    bool announced = false;
    const auto announceWhenFocused = [&] {
        if (announced || !field.windowHandle() || QGuiApplication::focusWindow() != field.windowHandle())
            return;
        announced = true;
        std::printf("ready %llu\n", static_cast<unsigned long long>(field.winId()));
        std::fflush(stdout);
    };
    QObject::connect(&app, &QGuiApplication::focusWindowChanged, &field, announceWhenFocused);

    field.show();
    // Without a window manager nobody else gives the new window the focus.
    field.activateWindow();
    field.setFocus();
    announceWhenFocused();
    return app.exec();
}
