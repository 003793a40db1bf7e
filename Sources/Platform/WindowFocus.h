#pragma once

#include <memory>

class QWidget;

// Keeps a window of ours from taking the keyboard focus when it appears, so that dictated text goes
// on reaching the application in front. Qt's own flags for it (Qt::WindowDoesNotAcceptFocus,
// Qt::WA_ShowWithoutActivating) are the caller's; this adds what the window system needs beyond them.
class WindowFocus {
public:
    virtual ~WindowFocus() = default;

    // Before the window is first shown. Its buttons still answer the mouse.
    virtual void keepFromTakingFocus(QWidget& window) = 0;
};
