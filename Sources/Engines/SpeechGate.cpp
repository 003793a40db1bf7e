#include "SpeechGate.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace {

constexpr int kFrameMs = 20;
constexpr double kFullScale = 32768.0;
// The shortest pitch period looked for (400 Hz, a child's voice raised).
constexpr int kShortestPeriod = SpeechGate::kSampleRate / 400;
// Pre-emphasis: the low rumble of fans and traffic is strongly self-similar over a few
// milliseconds; a voice's harmonics keep their period after it is taken away.
constexpr float kPreEmphasis = 0.95F;
// A voiced frame repeats itself at its pitch period at least this well, even under 5 dB of noise;
// a cough, a door or a key is turbulence or a click, far from periodic.
constexpr float kVoicedPeriodicity = 0.4F;
// A voiced frame also stands above the noise floor, which a steady sound never does by this much.
constexpr float kAboveFloorDb = 4;
// The floor follows a quieter room at once and a louder one at this pace: a fan speeding up is
// followed; a sustained vowel lifts it by a fraction of a decibel.
constexpr float kFloorRisePerFrame = 1.0F * kFrameMs / 1000;
// The floor starts at the quietest moment of the first second of sound, so speech from the very
// start is measured against the room rather than against itself.
constexpr int kFloorSeedFrames = 1000 / kFrameMs;
// Below this, digital silence and dither: nothing to measure periodicity on.
constexpr float kAudibleDb = -95;
// Voiced frames count in runs at least this long (a vowel); a thump that rings for a frame or two does not.
constexpr int kShortestVowelFrames = 3;
// A short word's vowels; a cough or a door slam rings for less.
constexpr int kShortestSpeechMs = 200;
// Speech whose loudest vowels stay under this is too faint to transcribe well: the microphone is
// far away or its input volume is low.
constexpr float kQuietestSpeechDb = -76;

}

void SpeechGate::add(std::span<const qint16> samples)
{
    for (const qint16 sample : samples) {
        const float value = float(sample / kFullScale);
        m_energy += double(value) * value;
        m_window[size_t(kLongestPeriod) + size_t(m_filled)] = value - kPreEmphasis * m_previousSample;
        m_previousSample = value;
        if (++m_filled == kFrameSamples)
            closeFrame();
    }
}

void SpeechGate::closeFrame()
{
    const double meanSquare = m_energy / kFrameSamples;
    const float level = meanSquare > 0 ? float(10 * std::log10(meanSquare)) : -200.0F;
    m_frames.push_back({level, level >= kAudibleDb ? framePeriodicity() : 0.0F});
    // The end of this frame is the look-back of the next.
    std::copy(m_window.end() - kLongestPeriod, m_window.end(), m_window.begin());
    m_filled = 0;
    m_energy = 0;
}

// The normalised autocorrelation of the frame against itself one period earlier, at its best period.
float SpeechGate::framePeriodicity() const
{
    const float* frame = m_window.data() + kLongestPeriod;
    float frameEnergy = 0;
    for (int n = 0; n < kFrameSamples; ++n)
        frameEnergy += frame[n] * frame[n];
    // The energy of the frame shifted one period back, updated as the period grows.
    float shiftedEnergy = 0;
    for (int n = -kShortestPeriod; n < kFrameSamples - kShortestPeriod; ++n)
        shiftedEnergy += frame[n] * frame[n];
    float best = 0;
    for (int period = kShortestPeriod; period <= kLongestPeriod; ++period) {
        float product = 0;
        for (int n = 0; n < kFrameSamples; ++n)
            product += frame[n] * frame[n - period];
        if (product > 0 && shiftedEnergy > 0)
            best = std::max(best, product / std::sqrt(frameEnergy * shiftedEnergy));
        if (period == kLongestPeriod)
            break; // the window holds no sample before this period's shift
        const float entering = frame[-period - 1], leaving = frame[kFrameSamples - period - 1];
        shiftedEnergy += entering * entering - leaving * leaving;
    }
    return best;
}

SpeechGate::Hearing SpeechGate::hearing() const
{
    // Digital silence (a microphone's first buffers, a muted input) is no room to measure against.
    std::vector<Frame> audible;
    std::copy_if(
        m_frames.begin(), m_frames.end(), std::back_inserter(audible), [](const Frame& frame) { return frame.level >= kAudibleDb; });
    if (audible.empty())
        return {};
    const auto seedEnd = audible.begin() + std::min<qsizetype>(qsizetype(audible.size()), kFloorSeedFrames);
    float floor = std::min_element(audible.begin(), seedEnd, [](const Frame& a, const Frame& b) { return a.level < b.level; })->level;
    int voicedFrames = 0, run = 0;
    float loudestVoiced = -200, loudestInRun = -200;
    const auto endRun = [&] {
        if (run >= kShortestVowelFrames) {
            voicedFrames += run;
            loudestVoiced = std::max(loudestVoiced, loudestInRun);
        }
        run = 0;
        loudestInRun = -200;
    };
    for (const Frame& frame : audible) {
        floor = std::min(frame.level, floor + kFloorRisePerFrame);
        if (frame.level < floor + kAboveFloorDb || frame.periodicity < kVoicedPeriodicity) {
            endRun();
            continue;
        }
        ++run;
        loudestInRun = std::max(loudestInRun, frame.level);
    }
    endRun();
    const std::chrono::milliseconds voiced{voicedFrames * kFrameMs};
    if (voiced.count() < kShortestSpeechMs)
        return {Verdict::nothing, voiced};
    return {loudestVoiced < kQuietestSpeechDb ? Verdict::tooQuiet : Verdict::speech, voiced};
}
