#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <utility>
#include <vector>

// Programs of the X11 desktop that tests drive, and the clipboard as any other program sees it.
namespace DesktopApps {

// xterm running `cat` in raw mode, so every byte the terminal sends is recorded.
class Terminal {
public:
    Terminal();
    ~Terminal();
    // 0 when xterm did not come up.
    unsigned long windowId() const { return m_windowId; }
    QByteArray received() const;

private:
    QString outputPath() const { return m_folder.filePath(QStringLiteral("received")); }

    QTemporaryDir m_folder;
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

// The clipboard's sorted targets, and the bytes of one target (empty if none), read by xclip while
// the event loop keeps running, since this process may be the owner.
QStringList clipboardTargets();
QByteArray clipboardData(const QString& target);
// Leaves the clipboard without an owner.
void clearClipboard();
// Copies text/html bytes with xclip, which claims the clipboard at the server's current time.
bool copyWithXclip(const QByteArray& html);

// Whether the X server has the key down now.
bool isKeyDown(int keycode);

}
