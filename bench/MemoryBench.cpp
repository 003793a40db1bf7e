// Whether the real program's memory stays flat over many dictations: 500 of them (or the count given
// as the first argument), each a held key, speech-like sound, a transcript from the fake whisper-cli,
// a paste into a focused window of another program, the clipboard given back and a history entry.
// Prints the resident memory and the private dirty pages after every 50 dictations, and the growth
// per dictation between the 50th and the last. Run under scripts/with-harness.sh.
#include "AppRun.h"
#include "BenchDesktop.h"
#include "DesktopApps.h"
#include "ProcessStats.h"
#include "TestSupport.h"
#include "XTestKeyboard.h"

#include <QCoreApplication>
#include <QProcess>

#include <cstdio>

using namespace std::chrono_literals;

namespace {

constexpr int rightAlt = 108;
constexpr int firstCheckpoint = 50;
// Long enough for any hold to be a dictation, short enough for 500 of them in about ten minutes.
constexpr auto hold = 500ms;
// The first capture waits for the sound server and the player's stream to get going.
constexpr auto firstHold = 1500ms;
// 150 ms tones with 100 ms of silence between them: every hold hears the silence as its noise floor
// and more than enough sound above it to count as speech.
constexpr double secondsPerDictation = 1.5;

struct Memory {
    qint64 residentKb;
    qint64 privateDirtyKb;
};

Memory measure(qint64 pid)
{
    // The HUD's hide and the clipboard's restoration are behind us; let the last timers run out.
    TestSupport::spin(2s);
    return {ProcessStats::residentKb(pid), ProcessStats::privateDirtyKb(pid)};
}

void print(int dictations, const Memory& memory)
{
    std::printf("after %3d dictations: resident %.2f MB, private dirty %.2f MB\n", dictations, memory.residentKb / 1024.0,
        memory.privateDirtyKb / 1024.0);
    std::fflush(stdout);
}

// One dictation, from the key press until the clipboard is given back. False when it brought no text.
bool dictate(AppRun& run, ReceivingWindow& receiver, std::chrono::milliseconds held)
{
    const qsizetype textBefore = receiver.text().size();
    const int logLine = run.lineCount();
    XTestKeyboard::press(rightAlt);
    TestSupport::spin(held);
    XTestKeyboard::release(rightAlt);
    return TestSupport::waitUntil([&] { return receiver.text().size() > textBefore; }, 10s)
        && run.waitForLog(QStringLiteral("Clipboard restored"), 5s, logLine);
}

}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (!BenchDesktop::isPresent("MemoryBench"))
        return 1;
    const int dictations = argc > 1 ? std::max(QByteArray(argv[1]).toInt(), firstCheckpoint) : 500;

    ReceivingWindow receiver;
    if (!BenchDesktop::focusReceiver(receiver))
        return 1;

    AppRun run;
    run.setSetting(QStringLiteral("playSounds"), false);
    run.useFakeWhisper(QStringLiteral("text=um ditado de teste para medir a memória"));
    if (!run.start()) {
        std::fprintf(stderr, "voxaria did not start:\n%s\n", qPrintable(run.log().join('\n')));
        return 1;
    }
    const qint64 pid = run.process().processId();

    const QString sound = run.root() + QStringLiteral("/speech-like.wav");
    const int periods = int(dictations * secondsPerDictation / 0.25) + 300;
    QProcess::execute(QStringLiteral("sox"),
        {QStringLiteral("-n"), QStringLiteral("-r"), QStringLiteral("16000"), QStringLiteral("-c"), QStringLiteral("1"), sound,
            QStringLiteral("synth"), QStringLiteral("0.15"), QStringLiteral("sine"), QStringLiteral("440"), QStringLiteral("vol"),
            QStringLiteral("0.5"), QStringLiteral("pad"), QStringLiteral("0"), QStringLiteral("0.1"), QStringLiteral("repeat"),
            QString::number(periods)});
    DesktopApps::Program speaker;
    speaker.start(QStringLiteral("paplay"), {sound});
    TestSupport::spin(1s);

    std::printf("start-up: resident %.2f MB\n", ProcessStats::residentKb(pid) / 1024.0);
    Memory atFirstCheckpoint{};
    Memory last{};
    for (int dictation = 1; dictation <= dictations; ++dictation) {
        if (!dictate(run, receiver, dictation == 1 ? firstHold : hold)) {
            const QStringList log = run.log();
            std::fprintf(stderr, "dictation %d did not complete:\n%s\n", dictation, qPrintable(log.mid(log.size() - 40).join('\n')));
            return 1;
        }
        if (dictation % firstCheckpoint == 0 || dictation == dictations) {
            last = measure(pid);
            print(dictation, last);
            if (dictation == firstCheckpoint)
                atFirstCheckpoint = last;
        }
    }
    run.stop();

    const int between = dictations - firstCheckpoint;
    if (between > 0) {
        std::printf("growth from dictation %d to %d: resident %+.0f kB (%+.2f kB per dictation), private dirty %+.0f kB "
                    "(%+.2f kB per dictation) (target: under 1 MB in all)\n",
            firstCheckpoint, dictations, double(last.residentKb - atFirstCheckpoint.residentKb),
            double(last.residentKb - atFirstCheckpoint.residentKb) / between,
            double(last.privateDirtyKb - atFirstCheckpoint.privateDirtyKb),
            double(last.privateDirtyKb - atFirstCheckpoint.privateDirtyKb) / between);
    }
    return 0;
}
