// A window that receives what other programs type or paste into it, for tests.
//
// Usage: receiver OUTPUT_FILE
//
// Shows a multi-line text field that takes the keyboard focus, then prints "ready WINDOW_ID" (the
// X11 window id, in decimal; on Wayland only a handle) on standard output. After every change it rewrites OUTPUT_FILE with
// the field's whole text in UTF-8, so the file always holds everything received so far. Its
// WM_CLASS is "receiver" / "receiver" and its window title "receiver". It runs until terminated.

#include <QApplication>
#include <QPlainTextEdit>
#include <QSaveFile>
#include <QTextStream>
#include <QWindow>

#include <cstdio>

namespace {

void writeAtomically(const QString& path, const QString& text)
{
    // A reader polling the file sees the old or the new text, never half of it.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        std::fprintf(stderr, "receiver: cannot write %s\n", qPrintable(path));
        return;
    }
    file.write(text.toUtf8());
    file.commit();
}

}

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName("receiver");
    if (argc != 2)
        return 2; // the output file is its one argument
    const QString output = QString::fromLocal8Bit(argv[1]);
    writeAtomically(output, {});

    QPlainTextEdit field;
    field.setWindowTitle("receiver");
    field.resize(480, 240);
    field.move(40, 40);
    QObject::connect(&field, &QPlainTextEdit::textChanged, &field, [&] { writeAtomically(output, field.toPlainText()); });

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
