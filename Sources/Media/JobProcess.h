#pragma once

#include <QString>
#include <QStringList>

#include <functional>

// One child program (yt-dlp, whisper-cli) run to its end from a media job's worker thread. Both
// pipes are read while it runs, so a chatty child can never fill one and stall; whole lines reach
// the handlers on the worker thread as they arrive. The child's files are created private (umask 077).
class JobProcess {
public:
    using LineHandler = std::function<void(const QString& line)>;

    JobProcess(QString program, QStringList arguments, QString workingDirectory = {});

    LineHandler onOutputLine; // absent: standard output is thrown away
    LineHandler onErrorLine; // absent: standard error is thrown away

    // Blocks until the child has exited and answers its exit status (a crash that leaves no status
    // counts as -1). `shouldStop` is asked every 50 ms: once it answers true the child is asked to
    // terminate, and killed if it is still there 2 s later. Throws PlatformError, with the
    // system's wording, when the program cannot be launched.
    int run(const std::function<bool()>& shouldStop);

private:
    QString m_program;
    QStringList m_arguments;
    QString m_workingDirectory;
};
