#include "WhisperModelFile.h"

#include <QDataStream>
#include <QFile>

#include <optional>

namespace {

constexpr quint32 kGgmlMagic = 0x67676d6c;
constexpr int kHeaderFields = 11;

// Bytes per block and elements per block of the tensor types whisper.cpp models use.
std::optional<std::pair<qint64, qint64>> typeBlock(qint32 type)
{
    switch (type) {
    case 0: return std::pair{4, 1}; // F32
    case 1: return std::pair{2, 1}; // F16
    case 2: return std::pair{18, 32}; // Q4_0
    case 3: return std::pair{20, 32}; // Q4_1
    case 6: return std::pair{22, 32}; // Q5_0
    case 7: return std::pair{24, 32}; // Q5_1
    case 8: return std::pair{34, 32}; // Q8_0
    default: return std::nullopt;
    }
}

// Reads little-endian 32-bit fields and skips bytes; once anything ran past the end, it stays failed.
class Reader {
public:
    explicit Reader(QFile& file)
        : m_file(file)
        , m_stream(&file)
    {
        m_stream.setByteOrder(QDataStream::LittleEndian);
    }
    qint32 next()
    {
        qint32 value = 0;
        m_stream >> value;
        return value;
    }
    void skip(qint64 bytes)
    {
        if (bytes < 0 || m_stream.skipRawData(bytes) != bytes)
            m_stream.setStatus(QDataStream::ReadPastEnd);
    }
    bool ok() const { return m_stream.status() == QDataStream::Ok; }
    bool atEnd() const { return m_file.atEnd(); }

private:
    QFile& m_file;
    QDataStream m_stream;
};

// Walks the tensors to the end of the file; false when one ends past it.
bool tensorsComplete(Reader& reader)
{
    while (reader.ok() && !reader.atEnd()) {
        const qint32 dimensions = reader.next(), nameLength = reader.next(), type = reader.next();
        if (dimensions < 0 || dimensions > 4)
            return true; // not a layout this check knows: whisper-cli will say what is wrong
        qint64 elements = 1;
        for (int i = 0; i < dimensions; ++i)
            elements *= reader.next();
        const auto block = typeBlock(type);
        if (!block)
            return true;
        reader.skip(nameLength);
        reader.skip(elements / block->second * block->first);
    }
    return reader.ok();
}

}

bool WhisperModelFile::isCutShort(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    Reader reader(file);
    if (quint32(reader.next()) != kGgmlMagic)
        return false;
    reader.skip(qint64(kHeaderFields) * 4);
    const qint32 mels = reader.next(), fftBins = reader.next();
    reader.skip(qint64(mels) * fftBins * 4);
    // The vocabulary: its own count of words, then each word's length and bytes.
    const qint32 vocabulary = reader.next();
    for (qint32 word = 0; word < vocabulary && reader.ok(); ++word)
        reader.skip(quint32(reader.next()));
    return !reader.ok() || !tensorsComplete(reader);
}
