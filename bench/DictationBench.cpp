// What a user feels of a dictation with the real program: how much speech right after the key press
// is lost, how long after the key release whisper-cli starts, how long after whisper-cli exits the
// text reaches the focused window, and what the program costs once idle after ten dictations.
// whisper-cli is a bash stand-in that stamps its start and exit and copies the WAV it was given.
// Run under scripts/with-harness.sh.
#include "AppRun.h"
#include "BenchClock.h"
#include "BenchDesktop.h"
#include "ProcessStats.h"
#include "TestSupport.h"
#include "XTestKeyboard.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <vector>

using namespace std::chrono_literals;

namespace {

constexpr int rightAlt = 108;
constexpr double toneMs = 500;

qint64 readStampUs(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toLongLong() : 0;
}

qint64 modifiedUs(const QString& path)
{
    struct stat info { };
    if (stat(path.toLocal8Bit().constData(), &info) != 0)
        return 0;
    return qint64(info.st_mtim.tv_sec) * 1000000 + info.st_mtim.tv_nsec / 1000;
}

QByteArray standIn(const QString& stamps)
{
    // Arguments as Voxaria passes them: -f is the fourth, the output base follows -of. Its help lists
    // no --vad, so it runs as an older whisper-cli does, on the file after the release; any other
    // call writes nothing, least of all into the folder it was started from.
    return QStringLiteral("#!/bin/bash\n"
                          "[ \"$1\" = -m ] || exit 0\n"
                          "echo ${EPOCHREALTIME/./} > '%1/started'\n"
                          "cp \"$4\" '%1/input.wav'\n"
                          "while [ $# -gt 1 ] && [ \"$1\" != -of ]; do shift; done\n"
                          "[ \"$1\" = -of ] && printf 'ditado%s ' \"${EPOCHREALTIME/./}\" > \"$2.txt\"\n"
                          "echo ${EPOCHREALTIME/./} > '%1/exited'\n")
        .arg(stamps)
        .toUtf8();
}

// Milliseconds of the marker tone missing from the start of the recording, and where it began.
struct LeadIn {
    double missingMs = -1;
    double toneStartMs = -1;
};

LeadIn measureLeadIn(const QString& wav)
{
    QFile file(wav);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray bytes = file.readAll().mid(44);
    const auto* samples = reinterpret_cast<const qint16*>(bytes.constData());
    const qsizetype count = bytes.size() / 2;
    // The tone ends at the first tenth of a second of quiet; the sentence after it is not measured.
    constexpr qsizetype gap = 1600;
    qsizetype first = -1;
    qsizetype last = -1;
    for (qsizetype i = 0; i < count; ++i) {
        if (std::abs(int(samples[i])) <= 1500)
            continue;
        if (first >= 0 && i - last > gap)
            break;
        if (first < 0)
            first = i;
        last = i;
    }
    if (first < 0)
        return {};
    // A tone that begins after the first sample was caught whole from its start; one that is already
    // sounding at the first sample lost whatever of it is not in the file.
    const double heardMs = (last - first) / 16.0;
    const bool cutAtStart = first == 0;
    return {cutAtStart ? std::max(0.0, toneMs - heardMs) : 0.0, first / 16.0};
}

}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (!BenchDesktop::isPresent("DictationBench"))
        return 1;
    ReceivingWindow receiver;
    if (!BenchDesktop::focusReceiver(receiver))
        return 1;

    AppRun run;
    const QString stamps = run.root() + QStringLiteral("/stamps");
    QDir().mkpath(stamps);
    run.setSetting(QStringLiteral("playSounds"), false);
    run.useWhisperStandIn(standIn(stamps));
    if (!run.start()) {
        std::fprintf(stderr, "voxaria did not start:\n%s\n", qPrintable(run.log().join('\n')));
        return 1;
    }
    // The marker tone, a pause, then a sentence: a tone alone is rightly taken for a key held by
    // mistake and never reaches whisper-cli.
    const QString tone = run.root() + QStringLiteral("/tone.wav");
    const QString sentence = run.root() + QStringLiteral("/sentence.wav");
    const QString marked = run.root() + QStringLiteral("/marked.wav");
    const QStringList format{"-r", "48000", "-c", "2"};
    const QList<QStringList> commands{QStringList{"-n"} + format
            + QStringList{tone, "synth", QString::number(toneMs / 1000), "sine", "1000", "vol", "0.5", "pad", "0", "0.3"},
        QStringList{TestSupport::testDataPath("speech/jfk.wav")} + format + QStringList{sentence, "trim", "0", "3"},
        {tone, sentence, marked}};
    for (const QStringList& command : commands) {
        if (QProcess::execute(QStringLiteral("sox"), command) != 0) {
            std::fprintf(stderr, "sox %s failed\n", qPrintable(command.join(' ')));
            return 1;
        }
    }

    std::vector<double> missing, toneStart, releaseToStart, exitToText;
    for (int dictation = 0; dictation < 10; ++dictation) {
        const qint64 textBefore = receiver.text().size();
        XTestKeyboard::press(rightAlt);
        TestSupport::spin(50ms);
        TestSupport::playIntoMicrophone(marked);
        TestSupport::spin(150ms);
        const qint64 releasedUs = BenchClock::nanoseconds(CLOCK_REALTIME) / 1000;
        XTestKeyboard::release(rightAlt);
        if (!TestSupport::waitUntil([&] { return receiver.text().size() > textBefore; }, 10s)) {
            std::fprintf(stderr, "dictation %d brought no text:\n%s\n", dictation + 1, qPrintable(run.log().join('\n')));
            return 1;
        }
        releaseToStart.push_back((readStampUs(stamps + QStringLiteral("/started")) - releasedUs) / 1000.0);
        exitToText.push_back((modifiedUs(receiver.outputPath()) - readStampUs(stamps + QStringLiteral("/exited"))) / 1000.0);
        const LeadIn leadIn = measureLeadIn(stamps + QStringLiteral("/input.wav"));
        missing.push_back(leadIn.missingMs);
        toneStart.push_back(leadIn.toneStartMs);
        // The clipboard is given back 0.65 s after the paste; let it settle before the next one.
        TestSupport::spin(800ms);
    }

    const ProcessStats::IdleCost idle = ProcessStats::idleCost(run.process().processId());
    run.stop();

    std::printf("lost lead-in of a tone played 50 ms after the key press: median %.1f ms, worst %.1f ms (target 0)\n",
        BenchClock::median(missing), BenchClock::maximum(missing));
    std::printf("  the tone began %.0f ms into the recording (median)\n", BenchClock::median(toneStart));
    std::printf("key release -> whisper-cli started: median %.1f ms, worst %.1f ms (target <= 20 ms)\n", BenchClock::median(releaseToStart),
        BenchClock::maximum(releaseToStart));
    std::printf("whisper-cli exit -> text in the receiving window: median %.1f ms, worst %.1f ms (target <= 80 ms)\n",
        BenchClock::median(exitToText), BenchClock::maximum(exitToText));
    std::printf("idle after 10 dictations: %lld wake-ups (context switches, all threads) in 10 s (target 0)\n", idle.wakeups);
    std::printf("idle after 10 dictations: resident memory %.1f MB (target <= 60 MB)\n", idle.residentKb / 1024.0);
    return 0;
}
