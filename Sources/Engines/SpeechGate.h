#pragma once

#include <QtGlobal>

#include <array>
#include <chrono>
#include <span>
#include <vector>

// Whether a recording holds speech: Whisper writes text for silence, hum and noise, so a recording
// without speech is never handed to it. Speech is voiced sound — periodic at a voice's pitch — that
// rises above the room's noise floor and lasts as long as a vowel does, over and over. The floor is
// tracked through the recording, so a steady hum or fan at any level stays under it; a cough, a
// door, typing or the click of the key are loud but not voiced, or not for long enough.
// Not thread-safe: fed on the capture thread, asked once the capture has stopped.
class SpeechGate {
public:
    static constexpr int kSampleRate = 16000;

    enum class Verdict {
        speech,
        // The pattern of speech was there, but too faint for a transcript worth having.
        tooQuiet,
        nothing,
    };
    struct Hearing {
        Verdict verdict = Verdict::nothing;
        // How much voiced speech was heard: the vowels, not the pauses between words.
        std::chrono::milliseconds voiced{0};
    };

    // 16 kHz mono samples, in recording order.
    void add(std::span<const qint16> samples);
    Hearing hearing() const;

private:
    static constexpr int kFrameSamples = kSampleRate / 50;
    // The longest pitch period looked for (80 Hz, a low male voice).
    static constexpr int kLongestPeriod = kSampleRate / 80;

    struct Frame {
        float level = 0; // dBFS
        float periodicity = 0; // the best normalised autocorrelation at a pitch period, 0 to 1
    };

    void closeFrame();
    float framePeriodicity() const;

    // The pre-emphasised samples of the frame being filled, after the end of the previous ones
    // (a pitch period may reach back that far).
    std::array<float, kLongestPeriod + kFrameSamples> m_window{};
    int m_filled = 0;
    double m_energy = 0;
    float m_previousSample = 0;
    std::vector<Frame> m_frames;
};
