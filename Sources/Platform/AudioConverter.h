#pragma once

#include "AudioFormat.h"

#include <QByteArrayView>

#include <memory>
#include <vector>

// Turns captured audio into 16-bit mono at a target rate, keeping resampling state from one buffer
// to the next so a recording converts seamlessly buffer by buffer.
class AudioConverter {
public:
    virtual ~AudioConverter() = default;

    // Appends the converted samples of one input buffer to `out`; false when conversion failed.
    virtual bool convert(QByteArrayView interleavedFrames, std::vector<qint16>& out) = 0;
    // Appends what the resampling filter still holds: the last few milliseconds of speech.
    virtual void flush(std::vector<qint16>& out) = 0;
};
