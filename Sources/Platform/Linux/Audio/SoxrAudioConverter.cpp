#include "SoxrAudioConverter.h"

#include "Shared/Logging.h"

#include <soxr.h>

#include <cmath>
#include <cstring>

std::unique_ptr<SoxrAudioConverter> SoxrAudioConverter::make(const AudioFormat& from, int targetSampleRate)
{
    if (!from.isUsable() || targetSampleRate <= 0)
        return nullptr;
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_INT16_I);
    // Medium quality is transparent for speech and several times cheaper than the default.
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_MQ, 0);
    soxr_error_t error = nullptr;
    soxr_t resampler = soxr_create(from.sampleRate, targetSampleRate, 1, &error, &io, &quality, nullptr);
    if (error || !resampler) {
        qCWarning(lcAudio) << "cannot create a resampler from" << from.sampleRate << "Hz:" << error;
        return nullptr;
    }
    return std::unique_ptr<SoxrAudioConverter>(new SoxrAudioConverter(resampler, from, double(targetSampleRate) / from.sampleRate));
}

SoxrAudioConverter::SoxrAudioConverter(soxr* resampler, AudioFormat from, double ratio)
    : m_resampler(resampler)
    , m_from(from)
    , m_ratio(ratio)
{
}

SoxrAudioConverter::~SoxrAudioConverter()
{
    soxr_delete(m_resampler);
}

namespace {

template <typename Sample> float sampleAt(const char* data, qsizetype index)
{
    Sample value;
    std::memcpy(&value, data + index * qsizetype(sizeof(Sample)), sizeof(Sample));
    if constexpr (std::is_same_v<Sample, float>)
        return value;
    else if constexpr (std::is_same_v<Sample, quint8>)
        return (float(value) - 128.0f) / 128.0f;
    else
        return float(value) / float(std::numeric_limits<Sample>::max());
}

template <typename Sample> void averageChannels(const char* data, qsizetype frames, int channels, std::vector<float>& mono)
{
    mono.resize(size_t(frames));
    for (qsizetype frame = 0; frame < frames; ++frame) {
        float sum = 0;
        for (int channel = 0; channel < channels; ++channel)
            sum += sampleAt<Sample>(data, frame * channels + channel);
        mono[size_t(frame)] = sum / float(channels);
    }
}

}

void SoxrAudioConverter::downmix(QByteArrayView interleavedFrames)
{
    const qsizetype frames = interleavedFrames.size() / m_from.bytesPerFrame();
    const char* data = interleavedFrames.data();
    switch (m_from.sampleType) {
    case AudioFormat::SampleType::uint8: averageChannels<quint8>(data, frames, m_from.channelCount, m_mono); break;
    case AudioFormat::SampleType::int16: averageChannels<qint16>(data, frames, m_from.channelCount, m_mono); break;
    case AudioFormat::SampleType::int32: averageChannels<qint32>(data, frames, m_from.channelCount, m_mono); break;
    case AudioFormat::SampleType::float32: averageChannels<float>(data, frames, m_from.channelCount, m_mono); break;
    case AudioFormat::SampleType::unknown: m_mono.clear(); break;
    }
}

bool SoxrAudioConverter::convert(QByteArrayView interleavedFrames, std::vector<qint16>& out)
{
    downmix(interleavedFrames);
    if (m_mono.empty())
        return interleavedFrames.isEmpty();
    // Room for every sample this buffer can yield, plus what the filter held back from before.
    const size_t capacity = size_t(std::floor(double(m_mono.size()) * m_ratio)) + 64;
    return process(m_mono.data(), m_mono.size(), capacity, out);
}

void SoxrAudioConverter::flush(std::vector<qint16>& out)
{
    // A null input tells soxr the stream has ended; it then drains its filter in one or more calls.
    constexpr size_t kChunk = 1024;
    size_t before;
    do {
        before = out.size();
        if (!process(nullptr, 0, kChunk, out))
            return;
    } while (out.size() - before == kChunk);
}

bool SoxrAudioConverter::process(const float* in, size_t frames, size_t capacity, std::vector<qint16>& out)
{
    const size_t start = out.size();
    out.resize(start + capacity);
    size_t consumed = 0;
    size_t produced = 0;
    const soxr_error_t error = soxr_process(m_resampler, in, frames, &consumed, out.data() + start, capacity, &produced);
    out.resize(start + produced);
    if (error) {
        qCWarning(lcAudio) << "resampling failed:" << error;
        return false;
    }
    return true;
}
