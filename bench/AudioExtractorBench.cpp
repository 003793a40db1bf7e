// How fast and how lean turning an hour of AAC into whisper-cli's WAV is, next to the ffmpeg program
// doing the same conversion on the same file in the same run.
#include "Media/AudioExtractor.h"
#include "Platform/Linux/Media/FFmpegMediaReader.h"
#include "ProcessStats.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QTemporaryDir>

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <optional>
#include <vector>

namespace {

constexpr int kSeconds = 3600;

struct Run {
    double wallSeconds = 0;
    double cpuSeconds = 0;
    qint64 peakKb = 0; // growth of resident memory in process; the whole peak of the ffmpeg program
};

double cpuSeconds(const timeval& user, const timeval& system)
{
    return double(user.tv_sec + system.tv_sec) + double(user.tv_usec + system.tv_usec) / 1e6;
}

// Runs ffmpeg and waits for it alone, so its own CPU time and peak memory are known.
std::optional<Run> runFFmpeg(const QStringList& arguments)
{
    QList<QByteArray> storage{"ffmpeg", "-hide_banner", "-loglevel", "error", "-y"};
    for (const QString& argument : arguments)
        storage.append(argument.toLocal8Bit());
    std::vector<char*> argv;
    for (QByteArray& argument : storage)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    QElapsedTimer timer;
    timer.start();
    pid_t child = 0;
    if (posix_spawnp(&child, "ffmpeg", nullptr, nullptr, argv.data(), environ) != 0)
        return std::nullopt;
    int status = 0;
    rusage usage{};
    if (wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return std::nullopt;
    return Run{double(timer.nsecsElapsed()) / 1e9, cpuSeconds(usage.ru_utime, usage.ru_stime), usage.ru_maxrss};
}

// An hour of speech: the shared sample looped, as 44.1 kHz stereo AAC, as a phone or camera records.
bool makeHourOfAac(const QString& path)
{
    return runFFmpeg({"-stream_loop", "-1", "-i", VOXARIA_TESTDATA_DIR "/speech/jfk.wav", "-t", QString::number(kSeconds), "-ar", "44100",
                         "-ac", "2", "-c:a", "aac", "-b:a", "128k", path})
        .has_value();
}

Run ours(const QString& source, const QString& destination)
{
    const qint64 before = ProcessStats::residentKb(getpid());
    rusage start{};
    getrusage(RUSAGE_SELF, &start);
    QElapsedTimer timer;
    timer.start();
    FFmpegMediaReader reader;
    AudioExtractor::extractWAV(reader, source, destination);
    Run run;
    run.wallSeconds = double(timer.nsecsElapsed()) / 1e9;
    rusage end{};
    getrusage(RUSAGE_SELF, &end);
    run.cpuSeconds = cpuSeconds(end.ru_utime, end.ru_stime) - cpuSeconds(start.ru_utime, start.ru_stime);
    run.peakKb = ProcessStats::statusField(QStringLiteral("/proc/self/status"), "VmHWM") - before;
    return run;
}

void print(const char* who, const Run& run)
{
    std::printf("%-28s %6.1f s wall (%5.0fx real time), %6.1f s CPU (%5.0fx), memory %6lld kB\n", who, run.wallSeconds,
        kSeconds / run.wallSeconds, run.cpuSeconds, kSeconds / run.cpuSeconds, static_cast<long long>(run.peakKb));
}

}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir folder;
    const QString source = folder.filePath(QStringLiteral("hour.m4a"));
    std::printf("making one hour of AAC...\n");
    std::fflush(stdout);
    if (!makeHourOfAac(source))
        return 1;

    const Run mine = ours(source, folder.filePath(QStringLiteral("ours.wav")));
    const std::optional<Run> ffmpeg = runFFmpeg({"-i", source, "-ar", "16000", "-ac", "1", folder.filePath(QStringLiteral("ffmpeg.wav"))});
    if (!ffmpeg)
        return 1;
    std::printf("one hour of 44.1 kHz stereo AAC (%.0f MB) -> 16 kHz mono WAV (%.0f MB)\n", double(QFileInfo(source).size()) / 1e6,
        double(QFileInfo(folder.filePath("ours.wav")).size()) / 1e6);
    print("AudioExtractor (in process)", mine);
    print("ffmpeg -ar 16000 -ac 1", *ffmpeg);
    std::printf("ratio ours/ffmpeg: %.2f (wall), %.2f (CPU); target >= 300x real time\n", ffmpeg->wallSeconds / mine.wallSeconds,
        ffmpeg->cpuSeconds / mine.cpuSeconds);
    return 0;
}
