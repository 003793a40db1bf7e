#pragma once

#include <functional>
#include <memory>

class QWidget;
class WindowFocus;

// "O Voxaria está em execução": on a desktop without a system tray, where the icon and its menu
// cannot be shown, says how to get one and offers the menu's main commands as buttons. It never
// takes the keyboard focus, so dictated text keeps going to the application in front; its buttons
// answer the mouse. Closing it only hides it. Main thread only.
class TrayMissingWindow {
public:
    struct Actions {
        std::function<void()> openHistory;
        std::function<void()> openVideoTranscription;
        std::function<void()> openHelp;
        std::function<void()> quit;
    };

    TrayMissingWindow(Actions actions, WindowFocus& focus);
    ~TrayMissingWindow();

    // Shows it without activating it, where it was last left (centred the first time).
    void show();
    QWidget* window() const { return m_window.get(); }

private:
    std::unique_ptr<QWidget> m_window;
};
