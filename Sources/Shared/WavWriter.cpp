#include "WavWriter.h"

#include <QtEndian>

#include <array>

WavWriter::WavWriter(const QString& path, int sampleRate, int channelCount)
    : m_file(path)
    , m_sampleRate(sampleRate)
    , m_channelCount(channelCount)
{
}

WavWriter::~WavWriter()
{
    close();
}

bool WavWriter::open()
{
    return m_file.open(QIODevice::WriteOnly | QIODevice::Truncate) && writeHeader();
}

bool WavWriter::writeHeader()
{
    std::array<char, 44> header{};
    auto put32 = [&](int offset, quint32 value) { qToLittleEndian(value, header.data() + offset); };
    auto put16 = [&](int offset, quint16 value) { qToLittleEndian(value, header.data() + offset); };
    const quint32 dataBytes = quint32(qMin<qint64>(m_dataBytes, 0xFFFFFFFFLL - 36));
    const quint16 blockAlign = quint16(m_channelCount * 2);
    std::copy_n("RIFF", 4, header.data());
    put32(4, 36 + dataBytes);
    std::copy_n("WAVEfmt ", 8, header.data() + 8);
    put32(16, 16);
    put16(20, 1); // linear PCM
    put16(22, quint16(m_channelCount));
    put32(24, quint32(m_sampleRate));
    put32(28, quint32(m_sampleRate) * blockAlign);
    put16(32, blockAlign);
    put16(34, 16);
    std::copy_n("data", 4, header.data() + 36);
    put32(40, dataBytes);
    return m_file.write(header.data(), header.size()) == qint64(header.size());
}

bool WavWriter::append(const qint16* samples, size_t count)
{
    if (!m_file.isOpen())
        return false;
    const qint64 bytes = qint64(count) * qint64(sizeof(qint16));
    if constexpr (Q_BYTE_ORDER == Q_BIG_ENDIAN) {
        for (size_t i = 0; i < count; ++i) {
            const qint16 little = qToLittleEndian(samples[i]);
            if (m_file.write(reinterpret_cast<const char*>(&little), 2) != 2)
                return false;
        }
    } else if (m_file.write(reinterpret_cast<const char*>(samples), bytes) != bytes) {
        return false;
    }
    m_dataBytes += bytes;
    return true;
}

bool WavWriter::close()
{
    if (!m_file.isOpen())
        return false;
    const bool complete = m_file.flush() && m_file.seek(0) && writeHeader() && m_file.flush();
    m_file.close();
    return complete;
}

void WavWriter::abandon()
{
    m_file.close();
}
