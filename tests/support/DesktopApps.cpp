#include "DesktopApps.h"

#include "TestSupport.h"

#include <QClipboard>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QTemporaryFile>
#include <QUuid>

namespace DesktopApps {

namespace {

QString scratchPath(const QString& stem)
{
    return QDir::tempPath() + QLatin1Char('/') + stem + QUuid::createUuid().toString(QUuid::WithoutBraces);
}

// Runs a short program with the event loop alive, answering its standard output.
QByteArray runSpinning(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    TestSupport::waitUntil([&] { return process.state() == QProcess::NotRunning; }, std::chrono::seconds(10));
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished();
    }
    return process.readAllStandardOutput();
}

// Waits for a line starting with `word` on the process's output, answering the rest of it.
QByteArray awaitLine(QProcess& process, const QByteArray& word)
{
    QByteArray rest;
    TestSupport::waitUntil([&] {
        while (process.canReadLine()) {
            const QByteArray line = process.readLine().trimmed();
            if (line.startsWith(word)) {
                rest = line.mid(word.size()).trimmed();
                return true;
            }
        }
        return process.state() == QProcess::NotRunning;
    }, std::chrono::seconds(15));
    return rest;
}

void stop(QProcess& process)
{
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (!TestSupport::waitUntil([&] { return process.state() == QProcess::NotRunning; }, std::chrono::seconds(3))) {
        process.kill();
        process.waitForFinished();
    }
}

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

}

Receiver::Receiver()
    : m_output(scratchPath(QStringLiteral("receiver-")))
{
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(QStringLiteral(VOXARIA_HELPER_receiver), {m_output});
    m_windowId = awaitLine(m_process, "ready").toULong();
}

Receiver::~Receiver()
{
    stop(m_process);
    QFile::remove(m_output);
}

QString Receiver::text() const
{
    return QString::fromUtf8(readAll(m_output));
}

bool Receiver::focus() const
{
    return focusWindow(m_windowId);
}

ClipboardOwner::ClipboardOwner(const std::vector<std::pair<QString, QByteArray>>& formats)
{
    QStringList arguments;
    for (const auto& [type, bytes] : formats) {
        auto file = new QTemporaryFile(&m_process);
        file->open();
        file->write(bytes);
        file->flush();
        arguments << type << file->fileName();
    }
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(QStringLiteral(VOXARIA_HELPER_clipboardowner), arguments);
    awaitLine(m_process, "ready");
    m_ready = m_process.state() == QProcess::Running;
}

ClipboardOwner::~ClipboardOwner()
{
    stop(m_process);
}

Terminal::Terminal()
    : m_output(scratchPath(QStringLiteral("terminal-")))
{
    QFile::remove(m_output);
    // xterm pastes the CLIPBOARD on Control-Shift-V once told to, as terminal users configure it;
    // raw mode hands `cat` every byte at once, without waiting for a newline.
    const QString script = QStringLiteral("stty raw -echo; echo $WINDOWID > '%1.id'; exec cat > '%1'").arg(m_output);
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    m_process.setProcessEnvironment(environment);
    m_process.start(QStringLiteral("xterm"),
        {QStringLiteral("-u8"), QStringLiteral("-geometry"), QStringLiteral("80x10+600+40"), QStringLiteral("-xrm"),
            QStringLiteral("XTerm*VT100.translations: #override Shift Ctrl <Key>V: insert-selection(CLIPBOARD)"),
            QStringLiteral("-e"), QStringLiteral("sh"), QStringLiteral("-c"), script});
    const QString idFile = m_output + QStringLiteral(".id");
    TestSupport::waitUntil([&] { return !readAll(idFile).trimmed().isEmpty(); }, std::chrono::seconds(15));
    m_windowId = readAll(idFile).trimmed().toULong();
    QFile::remove(idFile);
}

Terminal::~Terminal()
{
    stop(m_process);
    QFile::remove(m_output);
}

QByteArray Terminal::received() const
{
    return readAll(m_output);
}

bool Terminal::focus() const
{
    return focusWindow(m_windowId);
}

QStringList clipboardTargets()
{
    const QByteArray output = runSpinning(QStringLiteral("xclip"),
        {QStringLiteral("-selection"), QStringLiteral("clipboard"), QStringLiteral("-o"), QStringLiteral("-t"),
            QStringLiteral("TARGETS")});
    QStringList targets = QString::fromUtf8(output).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    targets.sort();
    return targets;
}

QByteArray clipboardData(const QString& target)
{
    return runSpinning(QStringLiteral("xclip"),
        {QStringLiteral("-selection"), QStringLiteral("clipboard"), QStringLiteral("-o"), QStringLiteral("-t"), target});
}

void clearClipboard()
{
    QGuiApplication::clipboard()->clear(QClipboard::Clipboard);
    TestSupport::spin(std::chrono::milliseconds(50));
}

unsigned long focusedWindow()
{
    return runSpinning(QStringLiteral("xdotool"), {QStringLiteral("getwindowfocus")}).trimmed().toULong();
}

bool focusWindow(unsigned long windowId)
{
    runSpinning(QStringLiteral("xdotool"),
        {QStringLiteral("windowfocus"), QStringLiteral("--sync"), QString::number(windowId)});
    return focusedWindow() == windowId;
}

}
