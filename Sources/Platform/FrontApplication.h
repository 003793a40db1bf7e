#pragma once

#include <QString>

#include <memory>
#include <optional>

// The application whose window has the keyboard focus. Main thread only.
class FrontApplication {
public:
    // The two halves of X11's WM_CLASS (instance and class); other platforms give the bundle id.
    struct WindowClass {
        QString instance;
        QString className;
        bool operator==(const WindowClass&) const = default;
    };

    virtual ~FrontApplication() = default;

    // The name a user knows the application by (its menu entry, in Portuguese when translated),
    // or nothing when no application is in front.
    virtual std::optional<QString> localizedName() = 0;
    // The window class of the focused top-level window, or nothing when none has one.
    virtual std::optional<WindowClass> windowClass() = 0;

    // Whether the focused window is a terminal, which hands a plain Control-V to its program as ^V
    // and pastes on Control-Shift-V instead.
    bool isTerminalInFront()
    {
        const std::optional<WindowClass> front = windowClass();
        return front && isTerminal(*front);
    }
    static bool isTerminal(const WindowClass& windowClass);
};
