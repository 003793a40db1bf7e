#pragma once

#include "TestSupport.h"

#include <QByteArray>
#include <QFile>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <utility>
#include <vector>

// Programs of the X11 desktop that tests drive, and the clipboard as any other program sees it.
namespace DesktopApps {

using namespace std::chrono_literals;

inline QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A program started for a test, killed when the test is done with it.
class Program : public QProcess {
public:
    ~Program() override
    {
        kill();
        waitForFinished();
    }
};

// xterm running `cat` in raw mode, so every byte the terminal sends is recorded at once. It pastes
// the CLIPBOARD on Control-Shift-V, as terminal users configure it.
class Terminal {
public:
    Terminal()
    {
        const QString idFile = outputPath() + ".id";
        const QString script = QStringLiteral("stty raw -echo; echo $WINDOWID > '%1'; exec cat > '%2'").arg(idFile, outputPath());
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("LC_ALL", "C.UTF-8");
        m_process.setProcessEnvironment(environment);
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start("xterm",
            {"-u8", "-geometry", "80x10+600+40", "-xrm",
                "XTerm*VT100.translations: #override Shift Ctrl <Key>V: insert-selection(CLIPBOARD)", "-e", "sh", "-c", script});
        TestSupport::waitUntil([&] { return (m_windowId = readAll(idFile).trimmed().toULong()) != 0; }, 15s);
    }
    // 0 when xterm did not come up.
    unsigned long windowId() const { return m_windowId; }
    QByteArray received() const { return readAll(outputPath()); }

private:
    QString outputPath() const { return m_folder.filePath("received"); }

    QTemporaryDir m_folder;
    Program m_process;
    unsigned long m_windowId = 0;
};

// Another program owning the clipboard with the given (MIME type, bytes) pairs.
class ClipboardOwner {
public:
    explicit ClipboardOwner(const std::vector<std::pair<QString, QByteArray>>& formats)
    {
        QStringList arguments;
        for (const auto& [type, bytes] : formats)
            arguments << type << QString::fromLatin1(bytes.toBase64());
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(QStringLiteral(VOXARIA_HELPER_clipboardowner), arguments);
        m_ready = TestSupport::waitUntil([&] { return m_process.canReadLine(); }, 15s);
    }
    bool isReady() const { return m_ready; }
    qint64 processId() const { return m_process.processId(); }

private:
    Program m_process;
    bool m_ready = false;
};

// The bytes the clipboard offers for one target (empty if none), read by xclip while the event
// loop keeps running, since this process may be the owner.
inline QByteArray clipboardData(const QString& target)
{
    Program xclip;
    xclip.start("xclip", {"-selection", "clipboard", "-o", "-t", target});
    TestSupport::waitUntil([&] { return xclip.state() == QProcess::NotRunning; }, 10s);
    return xclip.readAllStandardOutput();
}

}
