#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <memory>
#include <utility>
#include <vector>

// Real X11 programs that tests drive: the receiving window, a foreign clipboard owner, xterm, and
// readers of the clipboard that look at it the way any other application would.
namespace DesktopApps {

// The helper window that records what it receives (tests/helpers/receiver.cpp).
class Receiver {
public:
    Receiver();
    ~Receiver();
    bool isReady() const { return m_windowId != 0; }
    unsigned long windowId() const { return m_windowId; }
    QString text() const;
    bool focus() const;

private:
    QString m_output;
    QProcess m_process;
    unsigned long m_windowId = 0;
};

// Another program owning the clipboard with the given (MIME type, bytes) pairs.
class ClipboardOwner {
public:
    explicit ClipboardOwner(const std::vector<std::pair<QString, QByteArray>>& formats);
    ~ClipboardOwner();
    bool isReady() const { return m_ready; }

private:
    QProcess m_process;
    bool m_ready = false;
};

// xterm running `cat` in raw mode into a file, so every byte the terminal sends is recorded.
class Terminal {
public:
    Terminal();
    ~Terminal();
    bool isReady() const { return m_windowId != 0; }
    QByteArray received() const;
    bool focus() const;

private:
    QString m_output;
    QProcess m_process;
    unsigned long m_windowId = 0;
};

// The clipboard as seen from outside: its targets, and the bytes of one target (empty if none).
// The event loop keeps running meanwhile, since this process may be the owner.
QStringList clipboardTargets();
QByteArray clipboardData(const QString& target);
// Leaves the clipboard without an owner.
void clearClipboard();

// The window holding the keyboard focus (xdotool's view).
unsigned long focusedWindow();
bool focusWindow(unsigned long windowId);

}
