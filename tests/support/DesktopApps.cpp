#include "DesktopApps.h"

#include "TestSupport.h"

#include <QFile>

using namespace std::chrono_literals;

namespace DesktopApps {

static QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

Terminal::Terminal()
{
    // xterm pastes the CLIPBOARD on Control-Shift-V once told to, as terminal users configure it;
    // raw mode hands `cat` every byte at once, without waiting for a newline.
    const QString idFile = outputPath() + QStringLiteral(".id");
    const QString script =
        QStringLiteral("stty raw -echo; echo $WINDOWID > '%1'; exec cat > '%2'").arg(idFile, outputPath());
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    m_process.setProcessEnvironment(environment);
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(QStringLiteral("xterm"),
        {QStringLiteral("-u8"), QStringLiteral("-geometry"), QStringLiteral("80x10+600+40"), QStringLiteral("-xrm"),
            QStringLiteral("XTerm*VT100.translations: #override Shift Ctrl <Key>V: insert-selection(CLIPBOARD)"),
            QStringLiteral("-e"), QStringLiteral("sh"), QStringLiteral("-c"), script});
    TestSupport::waitUntil([&] { return (m_windowId = readAll(idFile).trimmed().toULong()) != 0; }, 15s);
}

QByteArray Terminal::received() const
{
    return readAll(outputPath());
}

ClipboardOwner::ClipboardOwner(const std::vector<std::pair<QString, QByteArray>>& formats)
{
    QStringList arguments;
    for (const auto& [type, bytes] : formats)
        arguments << type << QString::fromLatin1(bytes.toBase64());
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(QStringLiteral(VOXARIA_HELPER_clipboardowner), arguments);
    // The helper says "ready" once it owns the clipboard.
    m_ready = TestSupport::waitUntil([&] { return m_process.canReadLine(); }, 15s);
}

QByteArray clipboardData(const QString& target)
{
    Program xclip;
    xclip.start(QStringLiteral("xclip"),
        {QStringLiteral("-selection"), QStringLiteral("clipboard"), QStringLiteral("-o"), QStringLiteral("-t"), target});
    TestSupport::waitUntil([&] { return xclip.state() == QProcess::NotRunning; }, 10s);
    return xclip.readAllStandardOutput();
}

}
