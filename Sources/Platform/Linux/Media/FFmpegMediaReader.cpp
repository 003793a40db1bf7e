#include "FFmpegMediaReader.h"

#include "Shared/Logging.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <mutex>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace {

// A few damaged packets are skipped, as players do; a track that keeps failing is corrupt.
constexpr int kBadPacketTolerance = 50;

bool isUsableAudio(const AVStream* stream)
{
    const AVCodecParameters* params = stream->codecpar;
    return params->codec_id != AV_CODEC_ID_NONE && params->sample_rate > 0 && params->ch_layout.nb_channels > 0;
}

int firstAudioStream(const AVFormatContext* format)
{
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        if (format->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO)
            return int(i);
    }
    return -1;
}

QString reasonFor(int error)
{
    switch (error) {
    case AVERROR_INVALIDDATA:
    case AVERROR_EOF: return QStringLiteral("o arquivo está incompleto ou corrompido");
    case AVERROR_DECODER_NOT_FOUND: return QStringLiteral("formato de áudio não suportado");
    case AVERROR(ENOMEM): return QStringLiteral("memória insuficiente");
    default: break;
    }
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(error, text, sizeof text);
    return QStringLiteral("erro de leitura (%1)").arg(QString::fromUtf8(text));
}

// FFmpeg writes its complaints about damaged files to standard error; they belong with our own
// audio log lines, seen only when that category's debug output is on.
void forwardLog(void* context, int level, const char* format, va_list arguments)
{
    if (level > AV_LOG_WARNING || !lcAudio().isDebugEnabled())
        return;
    char line[1024];
    int printPrefix = 1;
    av_log_format_line(context, level, format, arguments, line, sizeof line, &printPrefix);
    qCDebug(lcAudio).noquote() << "ffmpeg:" << QByteArray(line).trimmed();
}

} // namespace

FFmpegMediaReader::FFmpegMediaReader()
{
    static std::once_flag logForwarded;
    std::call_once(logForwarded, [] { av_log_set_callback(forwardLog); });
}

FFmpegMediaReader::~FFmpegMediaReader()
{
    av_frame_free(&m_frame);
    av_packet_free(&m_packet);
    swr_free(&m_resampler);
    avcodec_free_context(&m_decoder);
    avformat_close_input(&m_format);
}

bool FFmpegMediaReader::openFirstAudioTrack(const QString& path)
{
    // "file:" keeps a name with a colon from being taken for a protocol; the whitelist keeps a
    // playlist inside the file from reaching out to the network or other files' protocols.
    const QByteArray url = "file:" + QFile::encodeName(QFileInfo(path).absoluteFilePath());
    AVDictionary* options = nullptr;
    av_dict_set(&options, "protocol_whitelist", "file", 0);
    const int opened = avformat_open_input(&m_format, url.constData(), nullptr, &options);
    av_dict_free(&options);
    if (opened < 0) {
        qCDebug(lcAudio) << "no media in" << path << reasonFor(opened);
        return false;
    }
    // Most containers describe their tracks in the header; probing packets (which decodes some
    // video too) is only needed for those that do not, such as MPEG transport streams.
    m_stream = firstAudioStream(m_format);
    const bool described = m_stream >= 0 && isUsableAudio(m_format->streams[m_stream]);
    if (!described && avformat_find_stream_info(m_format, nullptr) >= 0)
        m_stream = firstAudioStream(m_format);
    if (m_stream < 0)
        return false;
    for (unsigned i = 0; i < m_format->nb_streams; ++i) {
        if (int(i) != m_stream)
            m_format->streams[i]->discard = AVDISCARD_ALL;
    }
    return true;
}

bool FFmpegMediaReader::startReading()
{
    const AVStream* stream = m_format && m_stream >= 0 ? m_format->streams[m_stream] : nullptr;
    const AVCodec* codec = stream ? avcodec_find_decoder(stream->codecpar->codec_id) : nullptr;
    if (!codec) {
        fail(AVERROR_DECODER_NOT_FOUND);
        return false;
    }
    m_decoder = avcodec_alloc_context3(codec);
    m_packet = av_packet_alloc();
    m_frame = av_frame_alloc();
    if (!m_decoder || !m_packet || !m_frame) {
        fail(AVERROR(ENOMEM));
        return false;
    }
    int status = avcodec_parameters_to_context(m_decoder, stream->codecpar);
    m_decoder->pkt_timebase = stream->time_base;
    if (status >= 0)
        status = avcodec_open2(m_decoder, codec, nullptr);
    if (status < 0) {
        fail(status);
        return false;
    }
    m_stage = Stage::decoding;
    return true;
}

std::optional<std::span<const qint16>> FFmpegMediaReader::nextChunk()
{
    m_samples.clear();
    while (m_stage == Stage::decoding || m_stage == Stage::draining) {
        const int received = avcodec_receive_frame(m_decoder, m_frame);
        if (received == 0) {
            const bool converted = convert(m_frame);
            av_frame_unref(m_frame);
            if (!converted)
                break;
            if (!m_samples.empty())
                return std::span<const qint16>(m_samples);
        } else if (received == AVERROR(EAGAIN) && m_stage == Stage::decoding) {
            feedDecoder();
        } else if (received == AVERROR(EAGAIN) || received == AVERROR_EOF) {
            m_stage = Stage::flushingResampler;
        } else {
            fail(received);
        }
    }
    if (m_stage == Stage::flushingResampler) {
        // What the resampling filter still holds: the last few milliseconds of the track.
        m_stage = Stage::done;
        if (m_resampler && drainResampler() && !m_samples.empty())
            return std::span<const qint16>(m_samples);
    }
    return std::nullopt;
}

void FFmpegMediaReader::feedDecoder()
{
    for (;;) {
        const int read = av_read_frame(m_format, m_packet);
        if (read == AVERROR_EOF && endedEarly()) {
            fail(AVERROR_INVALIDDATA);
            return;
        }
        if (read == AVERROR_EOF) {
            avcodec_send_packet(m_decoder, nullptr);
            m_stage = Stage::draining;
            return;
        }
        if (read < 0) {
            fail(read);
            return;
        }
        if (m_packet->stream_index != m_stream) {
            av_packet_unref(m_packet);
            continue;
        }
        m_lastPacketCut = m_packet->flags & AV_PKT_FLAG_CORRUPT;
        if (m_packet->pts != AV_NOPTS_VALUE)
            m_endOfData = std::max<qint64>(m_endOfData, m_packet->pts + m_packet->duration);
        const int sent = avcodec_send_packet(m_decoder, m_packet);
        av_packet_unref(m_packet);
        if (sent >= 0) {
            m_consecutiveBadPackets = 0;
            return;
        }
        if (sent != AVERROR_INVALIDDATA || ++m_consecutiveBadPackets > kBadPacketTolerance) {
            fail(sent);
            return;
        }
        qCDebug(lcAudio) << "skipped a damaged audio packet";
    }
}

// A file cut short (an interrupted download or copy) reads like one that simply ends: the demuxer
// says only "end of file". Its last packet comes out short, or, when the cut fell between packets
// (say inside a video frame), the audio stops well before the length the container announced.
bool FFmpegMediaReader::endedEarly() const
{
    const AVStream* stream = m_format->streams[m_stream];
    if (m_lastPacketCut)
        return true;
    if (stream->duration <= 0 || stream->duration == AV_NOPTS_VALUE || m_endOfData == AV_NOPTS_VALUE)
        return false;
    const int64_t start = stream->start_time == AV_NOPTS_VALUE ? 0 : stream->start_time;
    const int64_t tolerance = std::max(stream->duration / 50, av_rescale_q(2, AVRational{1, 1}, stream->time_base));
    return m_endOfData < start + stream->duration - tolerance;
}

bool FFmpegMediaReader::convert(const AVFrame* frame)
{
    if (!configureResampler(frame))
        return false;
    const int capacity = swr_get_out_samples(m_resampler, frame->nb_samples);
    if (capacity < 0) {
        fail(capacity);
        return false;
    }
    return resample(frame->extended_data, frame->nb_samples, capacity);
}

bool FFmpegMediaReader::drainResampler()
{
    const int capacity = swr_get_out_samples(m_resampler, 0);
    return capacity <= 0 || resample(nullptr, 0, capacity);
}

bool FFmpegMediaReader::resample(const quint8* const* input, int frames, int capacity)
{
    const size_t start = m_samples.size();
    m_samples.resize(start + size_t(capacity));
    auto* output = reinterpret_cast<quint8*>(m_samples.data() + start);
    const int produced = swr_convert(m_resampler, &output, capacity, const_cast<const uint8_t**>(input), frames);
    if (produced < 0) {
        m_samples.resize(start);
        fail(produced);
        return false;
    }
    m_samples.resize(start + size_t(produced));
    return true;
}

// Set up for the first frame, and again whenever the decoder's output changes shape mid-track
// (a broadcast switching from stereo to 5.1, say), after what the old setup holds was taken out.
bool FFmpegMediaReader::configureResampler(const AVFrame* frame)
{
    const InputShape shape{frame->format, frame->sample_rate, frame->ch_layout.nb_channels,
        frame->ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? frame->ch_layout.u.mask : 0};
    if (m_resampler && shape == m_inputShape)
        return true;
    if (m_resampler && !drainResampler())
        return false;
    swr_free(&m_resampler);
    AVChannelLayout input{};
    if (shape.channels <= 0 || shape.rate <= 0) {
        fail(AVERROR_INVALIDDATA);
        return false;
    }
    if (frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
        av_channel_layout_default(&input, shape.channels);
    else
        av_channel_layout_copy(&input, &frame->ch_layout);
    AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
    int status = swr_alloc_set_opts2(
        &m_resampler, &mono, AV_SAMPLE_FMT_S16, sampleRate, &input, AVSampleFormat(shape.format), shape.rate, 0, nullptr);
    av_channel_layout_uninit(&input);
    if (status >= 0)
        status = swr_init(m_resampler);
    if (status < 0) {
        fail(status);
        return false;
    }
    m_inputShape = shape;
    return true;
}

void FFmpegMediaReader::fail(int error)
{
    m_outcome = {true, reasonFor(error)};
    m_stage = Stage::done;
    qCWarning(lcAudio) << "audio decoding failed:" << m_outcome.reason;
}
