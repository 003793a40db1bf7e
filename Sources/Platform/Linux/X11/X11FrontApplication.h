#pragma once

#include "Platform/FrontApplication.h"
#include "Platform/Linux/Desktop/DesktopEntryNames.h"

// The front application on X11: the window named by the window manager's _NET_ACTIVE_WINDOW, or,
// with no window manager, the top-level window above the one holding the input focus.
class X11FrontApplication final : public FrontApplication {
public:
    // The X server answers at once, on the main thread's own connection.
    void ask(QObject* context, AnswerHandler done) override;
    std::optional<QString> localizedName() override;
    std::optional<WindowClass> windowClass() override;

    // The Name of the installed .desktop entry for this window class (its pt_BR translation when it
    // has one), or nothing when no entry matches.
    std::optional<QString> desktopEntryName(const WindowClass& windowClass);

private:
    DesktopEntryNames m_desktopNames;
};
