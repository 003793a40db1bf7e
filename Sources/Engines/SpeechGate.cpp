#include "SpeechGate.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace {

constexpr int kFrameMs = 20;
constexpr int kFrameSamples = SpeechGate::kSampleRate * kFrameMs / 1000;
constexpr double kFullScale = 32768.0;
// Syllables rise well above the pauses between them; noise varies by a few decibels at most.
constexpr int kAboveFloorDb = 12;
// Quieter than a voice reaches even a microphone set low: a quiet room's rustle never counts, however far
// above digital silence it is.
constexpr int kQuietestSpeechDb = -60;
// A short word; a click or a bump of the desk is shorter.
constexpr int kShortestSpeechMs = 150;
// The floor is the level a tenth of the frames stay under.
constexpr int kFloorPercent = 10;

}

void SpeechGate::add(std::span<const qint16> samples)
{
    for (const qint16 sample : samples) {
        m_frameEnergy += double(sample) * sample;
        if (++m_frameSamples == kFrameSamples)
            closeFrame();
    }
}

void SpeechGate::closeFrame()
{
    const double meanSquare = m_frameEnergy / (double(m_frameSamples) * kFullScale * kFullScale);
    const double decibels = meanSquare > 0 ? 10 * std::log10(meanSquare) : -double(kLevels);
    const int level = std::clamp(int(std::lround(decibels)) + kLevels - 1, 0, kLevels - 1);
    ++m_framesAtLevel[size_t(level)];
    m_frameEnergy = 0;
    m_frameSamples = 0;
}

int SpeechGate::noiseFloorLevel(int frames) const
{
    int below = 0;
    for (int level = 0; level < kLevels; ++level) {
        below += m_framesAtLevel[size_t(level)];
        if (below * 100 >= frames * kFloorPercent)
            return level;
    }
    return kLevels - 1;
}

bool SpeechGate::heardSpeech() const
{
    const int frames = std::accumulate(m_framesAtLevel.begin(), m_framesAtLevel.end(), 0);
    if (frames == 0)
        return false;
    const int threshold = std::max(noiseFloorLevel(frames) + kAboveFloorDb, kQuietestSpeechDb + kLevels - 1);
    if (threshold >= kLevels)
        return false;
    const int loud = std::accumulate(m_framesAtLevel.begin() + threshold, m_framesAtLevel.end(), 0);
    return loud * kFrameMs >= kShortestSpeechMs;
}
