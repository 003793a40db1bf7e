#pragma once

#include <QtGlobal>

#include <array>
#include <span>

// Whether a recording holds anything speech-like, judged by loudness alone: Whisper writes text for
// silence and steady noise, so a recording without it is never handed to Whisper. Each 20 ms frame's
// energy goes into a histogram; speech is enough frames well above the recording's own noise floor
// (its quietest tenth), which a steady hum, fan or hiss never reaches whatever its level.
// Not thread-safe: fed on the capture thread, asked once the capture has stopped.
class SpeechGate {
public:
    static constexpr int kSampleRate = 16000;

    // 16 kHz mono samples, in recording order.
    void add(std::span<const qint16> samples);
    bool heardSpeech() const;

private:
    // Levels in whole decibels from -100 dBFS (and below, digital silence) to 0 dBFS.
    static constexpr int kLevels = 101;

    void closeFrame();
    int noiseFloorLevel(int frames) const;

    std::array<int, kLevels> m_framesAtLevel{};
    double m_frameEnergy = 0;
    int m_frameSamples = 0;
};
