#pragma once

// One dictation through the real WhisperTranscriber, its microphone a fake fed with recorded
// speech: the key held for a while, released, and the text awaited on a real event loop.

#include "BenchClock.h"
#include "Engines/WhisperTranscriber.h"
#include "Platform/Fakes/FakeAudioInput.h"
#include "Platform/Linux/Audio/SoxrAudioConverter.h"
#include "Platform/Linux/Desktop/ProcessActivity.h"
#include "Shared/Error.h"

#include <QByteArray>
#include <QEventLoop>
#include <QFile>
#include <QTimer>

#include <cstdio>
#include <memory>

namespace BenchDictation {

// 16 kHz mono 16-bit samples of a WAV file, at most `seconds` of them.
inline QByteArray speechSamples(const QString& wavPath, int seconds)
{
    QFile wav(wavPath);
    wav.open(QIODevice::ReadOnly);
    const QByteArray bytes = wav.readAll();
    const qsizetype data = bytes.indexOf("data");
    return data < 0 ? QByteArray() : bytes.mid(data + 8, qsizetype{seconds} * WhisperTranscriber::kSampleRate * 2);
}

struct Result {
    qint64 releasedAt = 0; // CLOCK_REALTIME, comparable with stamps other processes write
    qint64 textAt = 0;
    double finishMs = 0; // how long finish() itself took
    bool answered = false;
    QString timing; // the engine's own spans, as the dictation's timing line gives them

    double releaseToTextMs() const { return (textAt - releasedAt) / 1e6; }
};

// Speaks `samples` at key down, holds the key `holdMs`, releases and waits for the answer.
inline Result dictate(const QByteArray& samples, int holdMs, const DictationOptions& options = {})
{
    auto input = std::make_unique<FakeAudioInput>();
    FakeAudioInput* microphone = input.get();
    WhisperTranscriber engine(std::move(input), &SoxrAudioConverter::make, &ProcessActivity::waitsOnStandardInput, options);
    Result result;
    QEventLoop waiting;
    engine.start(
        {},
        [&](const QString&) {
            result.textAt = BenchClock::nanoseconds(CLOCK_REALTIME);
            result.answered = true;
            if (const std::optional<TranscriptionEngine::Timing> timing = engine.timing())
                result.timing = timing->spans;
            waiting.quit();
        },
        [&](const Error& e) {
            std::fprintf(stderr, "error: %s\n", qPrintable(e.description()));
            waiting.quit();
        });
    microphone->deliver(samples);
    if (holdMs > 0) {
        QTimer::singleShot(holdMs, &waiting, &QEventLoop::quit);
        waiting.exec();
    }
    QElapsedTimer clock;
    result.releasedAt = BenchClock::nanoseconds(CLOCK_REALTIME);
    clock.start();
    engine.finish();
    result.finishMs = clock.nsecsElapsed() / 1e6;
    // A real event loop, as in the program: nothing spins while the child runs. A child that never
    // answers ends the wait after two minutes rather than the benchmark.
    QTimer::singleShot(120000, &waiting, &QEventLoop::quit);
    waiting.exec();
    return result;
}

}
