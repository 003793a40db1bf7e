// How long Voxaria itself adds around whisper-cli: from the key release (finish()) to the child
// running, and from the child's exit to the text reaching onFinal. whisper-cli's own time is left
// out: a tiny shell stand-in writes its transcript and the moment it exits.
#include "BenchClock.h"
#include "BenchHome.h"
#include "Engines/WhisperTranscriber.h"
#include "Platform/Fakes/FakeAudioInput.h"
#include "Shared/Preferences/Settings.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QProcess>

#include <algorithm>
#include <chrono>
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

    std::vector<double> toStarted, toChild, exitToFinal;
    const QByteArray silence(3200, '\0');
    for (int run = 0; run < 30; ++run) {
        auto input = std::make_unique<FakeAudioInput>();
        FakeAudioInput* microphone = input.get();
        WhisperTranscriber engine(std::move(input));
        qint64 finalAt = 0;
        QEventLoop waiting;
        engine.start(
            {},
            [&](const QString&) {
                finalAt = BenchClock::nanoseconds(CLOCK_REALTIME);
                waiting.quit();
            },
            [&](const Error& e) {
                std::fprintf(stderr, "error: %s\n", qPrintable(e.description()));
                waiting.quit();
            });
        microphone->deliver(silence);
        QElapsedTimer clock;
        const qint64 releasedAt = BenchClock::nanoseconds(CLOCK_REALTIME);
        clock.start();
        engine.finish();
        const double finishMs = clock.nsecsElapsed() / 1e6;
        // A real event loop, as in the program: nothing spins while the child runs.
        waiting.exec();
        toStarted.push_back(finishMs);
        toChild.push_back((readStamp(home.path() + QStringLiteral("/started")) - releasedAt) / 1e6);
        exitToFinal.push_back((finalAt - readStamp(home.path() + QStringLiteral("/exited"))) / 1e6);
    }
    QFile::remove(binary);
    std::printf("finish() returned with whisper-cli launched: median %.2f ms (target <= 10 ms)\n", BenchClock::median(toStarted));
    std::printf("key release -> first line of the child running: median %.2f ms (includes bash start-up)\n", BenchClock::median(toChild));
    std::printf(
        "whisper-cli exit -> onFinal: median %.2f ms (target <= 5 ms; includes process reaping)\n", BenchClock::median(exitToFinal));
    return 0;
}
