#pragma once

#include <functional>
#include <memory>

// The desktop's system tray, where the program's icon and menu live: whether there is one, and
// word when one may have come or gone (a tray host started, ended or crashed).
class SystemTray {
public:
    virtual ~SystemTray() = default;

    // Asked of the desktop at each call.
    virtual bool isAvailable() = 0;

    // Runs on the main thread when a tray may have come or gone; isAvailable() tells which.
    std::function<void()> onChange;
};
