#include "JobProcess.h"

#include "Shared/Error.h"

#include <QDeadlineTimer>
#include <QProcess>

#include <sys/stat.h>

namespace {

// How quickly a cancellation reaches the child: the worker looks at the flag this often.
constexpr int kPollMs = 50;
// A child asked to terminate gets this long to leave before it is killed.
constexpr int kTerminateGraceMs = 2000;
// A "line" that never ends (a child writing binary junk) is dropped rather than kept growing.
constexpr qsizetype kLongestLine = qsizetype{1024} * 1024;

// Cuts what a pipe delivers into lines; a line split across two reads waits for its end. Empty
// lines are skipped.
class LineSplitter {
public:
    explicit LineSplitter(const JobProcess::LineHandler& handler)
        : m_handler(handler)
    {
    }

    void feed(const QByteArray& bytes)
    {
        if (bytes.isEmpty())
            return;
        m_pending += bytes;
        qsizetype start = 0;
        for (qsizetype end; (end = m_pending.indexOf('\n', start)) >= 0; start = end + 1)
            hand(m_pending.mid(start, end - start));
        m_pending.remove(0, start);
        if (m_pending.size() > kLongestLine)
            m_pending.clear();
    }

    // The child is gone: its last line may lack a line feed.
    void finish()
    {
        hand(m_pending);
        m_pending.clear();
    }

private:
    void hand(QByteArray line)
    {
        if (line.endsWith('\r'))
            line.chop(1);
        if (!line.isEmpty())
            m_handler(QString::fromUtf8(line));
    }

    const JobProcess::LineHandler& m_handler;
    QByteArray m_pending;
};

}

JobProcess::JobProcess(QString program, QStringList arguments, QString workingDirectory)
    : m_program(std::move(program))
    , m_arguments(std::move(arguments))
    , m_workingDirectory(std::move(workingDirectory))
{
}

int JobProcess::run(const std::function<bool()>& shouldStop)
{
    QProcess process;
    process.setProgram(m_program);
    process.setArguments(m_arguments);
    if (!m_workingDirectory.isEmpty())
        process.setWorkingDirectory(m_workingDirectory);
    // What the child writes (the fetched audio, the transcript, the subtitles) is the user's alone
    // from its first byte, whatever the folder around it allows.
    process.setChildProcessModifier([] { ::umask(077); });
    // The null device never fills up, so output nobody reads cannot stall the child.
    if (!onOutputLine)
        process.setStandardOutputFile(QProcess::nullDevice());
    if (!onErrorLine)
        process.setStandardErrorFile(QProcess::nullDevice());
    process.start(QIODevice::ReadOnly);
    if (!process.waitForStarted(-1))
        throw PlatformError(process.errorString());

    LineSplitter output(onOutputLine);
    LineSplitter errors(onErrorLine);
    const auto drain = [&] {
        if (onOutputLine)
            output.feed(process.readAllStandardOutput());
        if (onErrorLine)
            errors.feed(process.readAllStandardError());
    };
    QDeadlineTimer killAt(QDeadlineTimer::Forever);
    // waitForFinished reads both pipes while it waits; the loop hands on what it read.
    while (!process.waitForFinished(kPollMs) && process.state() != QProcess::NotRunning) {
        drain();
        if (killAt.isForever() && shouldStop && shouldStop()) {
            process.terminate();
            killAt.setRemainingTime(kTerminateGraceMs);
        } else if (killAt.hasExpired()) {
            process.kill();
        }
    }
    drain();
    output.finish();
    errors.finish();
    if (process.exitStatus() == QProcess::CrashExit && process.exitCode() == 0)
        return -1;
    return process.exitCode();
}
