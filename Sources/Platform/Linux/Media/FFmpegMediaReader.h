#pragma once

#include "Platform/MediaReader.h"

#include <limits>
#include <vector>

struct AVCodecContext;
struct AVFormatContext;
struct AVFrame;
struct AVPacket;
struct SwrContext;

// libavformat finds the first audio stream and drops every other stream's packets unread,
// libavcodec decodes packet by packet, and one libswresample context (kept for the whole track,
// flushed at its end) down-mixes and resamples each frame: only one frame's samples are held.
class FFmpegMediaReader final : public MediaReader {
public:
    FFmpegMediaReader();
    ~FFmpegMediaReader() override;

    bool openFirstAudioTrack(const QString& path) override;
    bool startReading() override;
    std::optional<std::span<const qint16>> nextChunk() override;
    Outcome outcome() const override { return m_outcome; }

private:
    enum class Stage { decoding, draining, flushingResampler, done };

    // What the resampler was set up for; a decoder may change it mid-track.
    struct InputShape {
        int format = -1, rate = 0, channels = 0;
        quint64 mask = 0;
        bool operator==(const InputShape&) const = default;
    };

    // Sends the next packet of our stream to the decoder, or the end of the stream.
    void feedDecoder();
    bool endedEarly() const;
    bool convert(const AVFrame* frame);
    bool drainResampler();
    // Appends the resampled frames to m_samples; `input` null takes out what the filter holds.
    bool resample(const quint8* const* input, int frames, int capacity);
    bool configureResampler(const AVFrame* frame);
    void fail(int error);

    AVFormatContext* m_format = nullptr;
    AVCodecContext* m_decoder = nullptr;
    SwrContext* m_resampler = nullptr;
    AVPacket* m_packet = nullptr;
    AVFrame* m_frame = nullptr;
    InputShape m_inputShape;
    int m_stream = -1;
    int m_consecutiveBadPackets = 0;
    bool m_lastPacketCut = false;
    qint64 m_endOfData = std::numeric_limits<qint64>::min(); // in the stream's time base
    Stage m_stage = Stage::done;
    std::vector<qint16> m_samples;
    Outcome m_outcome;
};
