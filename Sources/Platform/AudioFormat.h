#pragma once

#include <QtGlobal>

// The shape of interleaved PCM as a capture device delivers it.
struct AudioFormat {
    enum class SampleType { unknown, uint8, int16, int32, float32 };

    int sampleRate = 0;
    int channelCount = 0;
    SampleType sampleType = SampleType::unknown;

    int bytesPerSample() const;
    int bytesPerFrame() const { return bytesPerSample() * channelCount; }
    bool isUsable() const { return sampleRate > 0 && channelCount > 0 && bytesPerSample() > 0; }
    bool operator==(const AudioFormat&) const = default;
};
