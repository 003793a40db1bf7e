#include "ModelFileCheck.h"

#include <QFile>
#include <QtEndian>

#include <array>
#include <optional>

namespace {

using Verdict = ModelFileCheck::Verdict;

// ggml's element types: how many elements one block holds and how many bytes it takes (ggml.c's
// type table; 0 for the numbers no longer or never used).
struct TypeLayout {
    quint64 blockElements = 0;
    quint64 blockBytes = 0;
};
constexpr std::array<TypeLayout, 43> kTypeLayouts{{
    {1, 4}, {1, 2}, {32, 18}, {32, 20}, {}, {}, {32, 22}, {32, 24}, {32, 34}, {32, 36}, // f32 … q8_1
    {256, 84}, {256, 110}, {256, 144}, {256, 176}, {256, 210}, {256, 292}, // q2_K … q8_K
    {256, 66}, {256, 74}, {256, 98}, {256, 50}, {32, 18}, {256, 110}, {256, 82}, {256, 136}, // iq2_xxs … iq4_xs
    {1, 1}, {1, 2}, {1, 4}, {1, 8}, {1, 8}, {256, 56}, {1, 2}, {}, {}, {}, // i8 … bf16, removed
    {256, 54}, {256, 66}, {}, {}, {}, {32, 17}, {64, 36}, {128, 18}, {64, 18}, // tq1_0 … q2_0
}};
constexpr int kMaxDimensions = 4;
constexpr quint64 kGgufDefaultAlignment = 32;

// Reads little-endian fields in order and remembers whether the file ran out before one of them:
// the difference between a file cut short and one that is not a model at all.
class Reader {
public:
    explicit Reader(QIODevice& device)
        : m_device(device)
        , m_size(device.size())
    {
        m_device.seek(0);
    }

    template <typename T> bool read(T& value)
    {
        std::array<char, sizeof(T)> bytes{};
        if (!has(sizeof(T)) || m_device.read(bytes.data(), sizeof(T)) != qint64(sizeof(T)))
            return false;
        m_position += sizeof(T);
        value = qFromLittleEndian<T>(bytes.data());
        return true;
    }
    bool readBytes(quint64 count, QByteArray& bytes)
    {
        if (!has(count))
            return false;
        bytes = m_device.read(qint64(count));
        m_position += count;
        return quint64(bytes.size()) == count;
    }
    bool skip(quint64 count)
    {
        if (!has(count) || m_device.skip(qint64(count)) != qint64(count))
            return false;
        m_position += count;
        return true;
    }
    bool atEnd() const { return m_position == quint64(m_size); }
    bool ranOut() const { return m_ranOut; }
    quint64 position() const { return m_position; }
    quint64 size() const { return quint64(m_size); }
    // What a failed read means for the whole file: a read that met the end, or a value that no file
    // of the format holds.
    Verdict failure() const { return m_ranOut ? Verdict::incomplete : Verdict::invalid; }

private:
    bool has(quint64 count)
    {
        if (count <= quint64(m_size) - m_position)
            return true;
        m_ranOut = true;
        return false;
    }

    QIODevice& m_device;
    qint64 m_size;
    quint64 m_position = 0;
    bool m_ranOut = false;
};

// The bytes of a tensor of this type and shape, or nothing when no valid file holds one.
std::optional<quint64> tensorBytes(quint32 type, const std::array<qint64, kMaxDimensions>& shape)
{
    if (type >= kTypeLayouts.size() || kTypeLayouts[type].blockElements == 0)
        return std::nullopt;
    const TypeLayout layout = kTypeLayouts[type];
    if (shape[0] % qint64(layout.blockElements) != 0)
        return std::nullopt;
    quint64 blocks = quint64(shape[0]) / layout.blockElements;
    for (int i = 1; i < kMaxDimensions; ++i) {
        if (__builtin_mul_overflow(blocks, quint64(shape[i]), &blocks))
            return std::nullopt;
    }
    quint64 bytes = 0;
    if (__builtin_mul_overflow(blocks, layout.blockBytes, &bytes))
        return std::nullopt;
    return bytes;
}

bool readInts(Reader& reader, std::initializer_list<qint32*> values)
{
    for (qint32* value : values) {
        if (!reader.read(*value))
            return false;
    }
    return true;
}

// A ggml header's arrays: counts that are negative or absurd are no model's.
bool isCount(qint32 value)
{
    return value >= 0 && value < (1 << 24);
}

// Hyperparameters, mel filters and vocabulary, as whisper_model_load reads them; gives how many
// tensors follow (the loader insists on every one of them).
std::optional<qint64> readWhisperHeader(Reader& reader)
{
    qint32 vocabulary = 0, audioContext = 0, audioState = 0, audioHeads = 0, audioLayers = 0, textContext = 0, textState = 0, textHeads = 0,
           textLayers = 0, mels = 0, fileType = 0;
    if (!readInts(reader,
            {&vocabulary, &audioContext, &audioState, &audioHeads, &audioLayers, &textContext, &textState, &textHeads, &textLayers, &mels,
                &fileType})
        || !isCount(audioLayers) || !isCount(textLayers))
        return std::nullopt;
    qint32 filterMels = 0, filterBins = 0;
    if (!readInts(reader, {&filterMels, &filterBins}) || !isCount(filterMels) || !isCount(filterBins)
        || !reader.skip(quint64(filterMels) * quint64(filterBins) * sizeof(float)))
        return std::nullopt;
    qint32 tokens = 0;
    if (!reader.read(tokens) || !isCount(tokens))
        return std::nullopt;
    for (qint32 i = 0; i < tokens; ++i) {
        quint32 length = 0;
        if (!reader.read(length) || !reader.skip(length))
            return std::nullopt;
    }
    // The encoder's 7 tensors and 15 per layer, the decoder's 4 and 24 per layer.
    return 11 + 15 * qint64(audioLayers) + 24 * qint64(textLayers);
}

// Model type, version, window and the layers' shapes, as whisper_vad_init_with_params reads them.
std::optional<qint64> readVoiceActivityHeader(Reader& reader)
{
    qint32 typeLength = 0, major = 0, minor = 0, patch = 0, window = 0, context = 0, layers = 0;
    if (!reader.read(typeLength) || !isCount(typeLength) || !reader.skip(quint64(typeLength))
        || !readInts(reader, {&major, &minor, &patch, &window, &context, &layers}) || !isCount(layers)
        || !reader.skip((3 * quint64(layers) + 4) * sizeof(qint32)))
        return std::nullopt;
    // The short-time Fourier basis, a weight and a bias per encoder layer, the LSTM's four, and the
    // final convolution's two.
    return 2 * qint64(layers) + 7;
}

// The tensors follow one another to the end of the file: shape, name, then the data itself.
Verdict readGgmlTensors(Reader& reader, qint64 expectedTensors)
{
    qint64 found = 0;
    while (!reader.atEnd()) {
        if (found == expectedTensors)
            return Verdict::invalid; // bytes beyond the last tensor
        qint32 dimensions = 0, nameLength = 0, type = 0;
        if (!readInts(reader, {&dimensions, &nameLength, &type}))
            return reader.failure();
        if (dimensions < 0 || dimensions > kMaxDimensions || nameLength <= 0 || nameLength > 4096 || type < 0)
            return Verdict::invalid;
        std::array<qint64, kMaxDimensions> shape{1, 1, 1, 1};
        for (int i = 0; i < dimensions; ++i) {
            qint32 elements = 0;
            if (!reader.read(elements))
                return reader.failure();
            if (elements < 0)
                return Verdict::invalid;
            shape[i] = elements;
        }
        const std::optional<quint64> bytes = tensorBytes(quint32(type), shape);
        if (!bytes)
            return Verdict::invalid;
        if (!reader.skip(quint64(nameLength)) || !reader.skip(*bytes))
            return reader.failure();
        ++found;
    }
    return found == expectedTensors ? Verdict::complete : Verdict::incomplete;
}

// 0x67676d6c, "ggml" read as a little-endian number.
bool readGgmlMagic(Reader& reader)
{
    quint32 magic = 0;
    return reader.read(magic) && magic == 0x67676d6c;
}

Verdict checkGgml(Reader& reader, ModelFileCheck::Format format)
{
    if (!readGgmlMagic(reader))
        return reader.failure();
    const std::optional<qint64> tensors
        = format == ModelFileCheck::Format::whisperGgml ? readWhisperHeader(reader) : readVoiceActivityHeader(reader);
    if (!tensors)
        return reader.failure();
    return readGgmlTensors(reader, *tensors);
}

// GGUF strings: a 64-bit length, then the bytes. Only a key's are read, and only when short enough
// to be one the check looks for; a long one is stepped over, not held in memory.
bool readGgufKey(Reader& reader, QByteArray& key)
{
    constexpr quint64 kLongestKey = 256;
    quint64 length = 0;
    if (!reader.read(length))
        return false;
    key.clear();
    return length <= kLongestKey ? reader.readBytes(length, key) : reader.skip(length);
}

bool skipGgufString(Reader& reader)
{
    quint64 length = 0;
    return reader.read(length) && reader.skip(length);
}

// The bytes of one value of a fixed-size GGUF type (uint8 … float64), 0 for a string or array.
quint64 ggufValueBytes(quint32 type)
{
    constexpr std::array<quint64, 13> sizes{1, 1, 2, 2, 4, 4, 4, 1, 0, 0, 8, 8, 8};
    return type < sizes.size() ? sizes[type] : 0;
}

constexpr quint32 kGgufString = 8;
constexpr quint32 kGgufArray = 9;
constexpr quint32 kGgufUint32 = 4;

bool skipGgufValues(Reader& reader, quint32 type, quint64 count)
{
    if (type == kGgufString) {
        for (quint64 i = 0; i < count; ++i) {
            if (!skipGgufString(reader))
                return false;
        }
        return true;
    }
    const quint64 size = ggufValueBytes(type);
    quint64 bytes = 0;
    return size > 0 && !__builtin_mul_overflow(size, count, &bytes) && reader.skip(bytes);
}

// The metadata: only the data's alignment matters here; every other value is stepped over. Nested
// arrays and unknown types are no GGUF file's.
bool readGgufMetadata(Reader& reader, qint64 pairs, quint64& alignment)
{
    for (qint64 i = 0; i < pairs; ++i) {
        QByteArray key;
        quint32 type = 0;
        if (!readGgufKey(reader, key) || !reader.read(type))
            return false;
        if (key == "general.alignment") {
            quint32 value = 0;
            if (type != kGgufUint32 || !reader.read(value) || value == 0 || (value & (value - 1)) != 0)
                return false;
            alignment = value;
            continue;
        }
        quint64 count = 1;
        if (type == kGgufArray && !(reader.read(type) && reader.read(count)))
            return false;
        if (type == kGgufArray || !skipGgufValues(reader, type, count))
            return false;
    }
    return true;
}

quint64 padded(quint64 value, quint64 alignment)
{
    return (value + alignment - 1) / alignment * alignment;
}

// Header, metadata, tensor infos, then the data: each tensor where the one before it ended, rounded
// up to the alignment, the last one padded too, as gguf.cpp writes them.
Verdict checkGguf(Reader& reader)
{
    QByteArray magic;
    quint32 version = 0;
    qint64 tensors = 0, pairs = 0;
    if (!reader.readBytes(4, magic))
        return reader.failure();
    if (magic != "GGUF")
        return Verdict::invalid;
    if (!reader.read(version) || !reader.read(tensors) || !reader.read(pairs))
        return reader.failure();
    if ((version != 2 && version != 3) || tensors < 0 || pairs < 0)
        return Verdict::invalid;
    quint64 alignment = kGgufDefaultAlignment;
    if (!readGgufMetadata(reader, pairs, alignment))
        return reader.failure();

    quint64 dataBytes = 0;
    for (qint64 i = 0; i < tensors; ++i) {
        quint32 dimensions = 0, type = 0;
        quint64 offset = 0;
        if (!skipGgufString(reader) || !reader.read(dimensions))
            return reader.failure();
        if (dimensions > kMaxDimensions)
            return Verdict::invalid;
        std::array<qint64, kMaxDimensions> shape{1, 1, 1, 1};
        for (quint32 d = 0; d < dimensions; ++d) {
            if (!reader.read(shape[d]))
                return reader.failure();
            if (shape[d] < 0)
                return Verdict::invalid;
        }
        if (!reader.read(type) || !reader.read(offset))
            return reader.failure();
        const std::optional<quint64> bytes = tensorBytes(type, shape);
        if (!bytes || offset != dataBytes || __builtin_add_overflow(dataBytes, padded(*bytes, alignment), &dataBytes))
            return Verdict::invalid;
    }
    const quint64 dataStart = tensors > 0 ? padded(reader.position(), alignment) : reader.position();
    quint64 length = 0;
    if (__builtin_add_overflow(dataStart, dataBytes, &length))
        return Verdict::invalid;
    if (reader.size() < length)
        return Verdict::incomplete;
    return reader.size() == length ? Verdict::complete : Verdict::invalid;
}

}

ModelFileCheck::Verdict ModelFileCheck::check(const QString& path, Format format)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return Verdict::invalid;
    return check(file, format);
}

ModelFileCheck::Verdict ModelFileCheck::check(QIODevice& file, Format format)
{
    Reader reader(file);
    return format == Format::gguf ? checkGguf(reader) : checkGgml(reader, format);
}

std::optional<qint64> ModelFileCheck::whisperTensorsStart(QIODevice& file)
{
    Reader reader(file);
    if (!readGgmlMagic(reader) || !readWhisperHeader(reader))
        return std::nullopt;
    return qint64(reader.position());
}
