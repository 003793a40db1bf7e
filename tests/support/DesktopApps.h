#pragma once

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <utility>
#include <vector>

// Programs of the X11 desktop that tests drive, and the clipboard as any other program sees it.
namespace DesktopApps {

// A program started for a test, killed when the test is done with it.
class Program : public QProcess {
public:
    ~Program() override
    {
        kill();
        waitForFinished();
    }
};

// xterm running `cat` in raw mode, so every byte the terminal sends is recorded.
class Terminal {
public:
    Terminal();
    // 0 when xterm did not come up.
    unsigned long windowId() const { return m_windowId; }
    QByteArray received() const;

private:
    QString outputPath() const { return m_folder.filePath(QStringLiteral("received")); }

    QTemporaryDir m_folder;
    Program m_process;
    unsigned long m_windowId = 0;
};

// Another program owning the clipboard with the given (MIME type, bytes) pairs.
class ClipboardOwner {
public:
    explicit ClipboardOwner(const std::vector<std::pair<QString, QByteArray>>& formats);
    bool isReady() const { return m_ready; }

private:
    Program m_process;
    bool m_ready = false;
};

// The bytes the clipboard offers for one target (empty if none), read by xclip while the event
// loop keeps running, since this process may be the owner.
QByteArray clipboardData(const QString& target);
}
