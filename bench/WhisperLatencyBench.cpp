// How long Voxaria itself adds around whisper-cli: from the key release (finish()) to the child
// running, and from the child's exit to the text reaching onFinal. whisper-cli's own time is left
// out: a tiny shell stand-in writes its transcript and the moment it exits. Its help lists no
// voice activity detection, so it is run as an older whisper-cli is, after the release.
#include "BenchDictation.h"
#include "BenchHome.h"

#include <QCoreApplication>
#include <QFile>

#include <cstdio>
#include <vector>

namespace {

void installStandIn(const QString& path, const QString& stampFolder)
{
    QFile script(path);
    script.open(QIODevice::WriteOnly | QIODevice::Truncate);
    // The last argument is the output base; the moments of starting and exiting are written beside.
    // bash's clock variable stamps the moments without starting another process.
    script.write(QStringLiteral("#!/bin/bash\n"
                                "[ \"$1\" = --help ] && exit 0\n"
                                "echo ${EPOCHREALTIME/./} > '%1/started'\n"
                                "printf 'texto' > \"${@: -1}.txt\"\n"
                                "echo ${EPOCHREALTIME/./} > '%1/exited'\n")
                     .arg(stampFolder)
                     .toUtf8());
    script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

// Nanoseconds since the epoch, from a stamp written in microseconds.
qint64 readStamp(const QString& path)
{
    QFile file(path);
    file.open(QIODevice::ReadOnly);
    return file.readAll().trimmed().toLongLong() * 1000;
}

}

int main(int argc, char** argv)
{
    BenchHome home;
    QCoreApplication app(argc, argv);
    BenchHome::placeEmptyModel();
    const QString binary = QCoreApplication::applicationDirPath() + QStringLiteral("/whisper-cli");
    installStandIn(binary, home.path());

    // Real speech, or the engine rightly answers "nothing heard" without running whisper-cli.
    const QByteArray speech = BenchDictation::speechSamples(QStringLiteral(VOXARIA_TESTDATA_DIR "/speech/jfk.wav"), 2);
    std::vector<double> toStarted, toChild, exitToFinal;
    for (int run = 0; run < 30; ++run) {
        const BenchDictation::Result dictation = BenchDictation::dictate(speech, 0);
        if (!dictation.answered)
            continue;
        toStarted.push_back(dictation.finishMs);
        toChild.push_back((readStamp(home.path() + QStringLiteral("/started")) - dictation.releasedAt) / 1e6);
        exitToFinal.push_back((dictation.textAt - readStamp(home.path() + QStringLiteral("/exited"))) / 1e6);
    }
    QFile::remove(binary);
    std::printf("finish() returned with whisper-cli launched: median %.2f ms (target <= 10 ms)\n", BenchClock::median(toStarted));
    std::printf("key release -> first line of the child running: median %.2f ms (includes bash start-up)\n", BenchClock::median(toChild));
    std::printf(
        "whisper-cli exit -> onFinal: median %.2f ms (target <= 5 ms; includes process reaping)\n", BenchClock::median(exitToFinal));
    return 0;
}
