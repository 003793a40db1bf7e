#pragma once

#include "Platform/KeyMonitor.h"
#include "Platform/Linux/Input/ModifierKeys.h"

#include <QObject>

#include <memory>
#include <set>

class QSocketNotifier;
struct _XDisplay; // NOLINT(bugprone-reserved-identifier): Xlib's own name for Display

// The modifier keys of the whole X display, read as XInput2 raw key events on the root window.
// Raw events need no grab, so every key still reaches the window it was typed in. The monitor has
// an X connection of its own, open only while a handler is installed and watched by a socket
// notifier on the main thread, so events cost nothing while no key moves.
class XInputKeyMonitor final : public QObject, public KeyMonitor {
    Q_OBJECT
public:
    XInputKeyMonitor();
    ~XInputKeyMonitor() override;

    Token addMonitor(Handler handler) override;
    void removeMonitor(Token token) override;

private:
    bool openConnection();
    void closeConnection();
    void readPendingEvents();
    void keyChanged(int keycode, bool pressed, KeyEventTime time);

    _XDisplay* m_display = nullptr;
    int m_xinputOpcode = 0;
    std::unique_ptr<QSocketNotifier> m_notifier;
    KeyHandlerList m_handlers;
    std::set<int> m_heldKeycodes;
};
