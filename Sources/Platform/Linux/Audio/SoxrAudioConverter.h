#pragma once

#include "Platform/AudioConverter.h"

#include <vector>

struct soxr;

// Down-mixes to mono float, then streams through one libsoxr resampler that lives as long as the
// recording, so no click or gap appears at buffer boundaries.
class SoxrAudioConverter final : public AudioConverter {
public:
    static std::unique_ptr<SoxrAudioConverter> make(const AudioFormat& from, int targetSampleRate);
    ~SoxrAudioConverter() override;

    bool convert(QByteArrayView interleavedFrames, std::vector<qint16>& out) override;
    void flush(std::vector<qint16>& out) override;

private:
    SoxrAudioConverter(soxr* resampler, AudioFormat from, double ratio);
    void downmix(QByteArrayView interleavedFrames);
    bool process(const float* in, size_t frames, size_t capacity, std::vector<qint16>& out);

    soxr* m_resampler;
    AudioFormat m_from;
    double m_ratio;
    std::vector<float> m_mono;
};
