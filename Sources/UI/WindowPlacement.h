#pragma once

#include <QGuiApplication>
#include <QScreen>
#include <QWidget>

// Puts a top-level window in the middle of the primary screen's free area, as a new window
// appears when it is built.
inline void centreOnScreen(QWidget& window)
{
    if (const QScreen* screen = QGuiApplication::primaryScreen()) {
        QRect frame = window.frameGeometry();
        frame.moveCenter(screen->availableGeometry().center());
        window.move(frame.topLeft());
    }
}
