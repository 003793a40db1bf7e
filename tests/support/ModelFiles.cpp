#include "ModelFiles.h"

#include <QtEndian>

namespace {

template <typename T> void put(QByteArray& out, T value)
{
    char bytes[sizeof(T)];
    qToLittleEndian(value, bytes);
    out.append(bytes, sizeof(T));
}

void putGgufString(QByteArray& out, const QByteArray& text)
{
    put<quint64>(out, text.size());
    out.append(text);
}

void putGgmlTensor(QByteArray& out, const QByteArray& name, qint32 elements, qint32 type, char fill)
{
    put<qint32>(out, 1);
    put<qint32>(out, qint32(name.size()));
    put<qint32>(out, type);
    put<qint32>(out, elements);
    out.append(name);
    out.append(QByteArray(elements * (type == 0 ? 4 : 1), fill));
}

qint64 padded(qint64 value, qint64 alignment)
{
    return (value + alignment - 1) / alignment * alignment;
}

}

QByteArray ModelFiles::whisper(qint64 bytes, char fill)
{
    QByteArray out;
    put<quint32>(out, 0x67676d6c);
    for (qint32 value : {51865, 1500, 8, 1, 0, 448, 8, 1, 0, 80, 1}) // no layers in the encoder or decoder
        put<qint32>(out, value);
    put<qint32>(out, 2); // mel filters: 2 × 3
    put<qint32>(out, 3);
    out.append(QByteArray(2 * 3 * 4, '\0'));
    const QList<QByteArray> tokens{"!", "", " a", " voz"};
    put<qint32>(out, qint32(tokens.size()));
    for (const QByteArray& token : tokens) {
        put<quint32>(out, quint32(token.size()));
        out.append(token);
    }
    for (int i = 0; i < 10; ++i)
        putGgmlTensor(out, "tensor." + QByteArray::number(i), 8, 0, fill);
    // The last one (i8, one byte an element) takes what is left.
    const QByteArray last = "decoder.token_embedding.weight";
    putGgmlTensor(out, last, qint32(bytes - out.size() - 16 - last.size()), 24, fill);
    return out;
}

QByteArray ModelFiles::voiceActivity()
{
    QByteArray out;
    put<quint32>(out, 0x67676d6c);
    const QByteArray type = "silero-16k";
    put<qint32>(out, qint32(type.size()));
    out.append(type);
    for (qint32 value : {6, 2, 0, 512, 64, 1, 129, 128, 3, 128, 128, 128, 1}) // version, window, context, 1 layer: its shape, LSTM, output
        put<qint32>(out, value);
    for (int i = 0; i < 9; ++i)
        putGgmlTensor(out, "vad." + QByteArray::number(i), 16, 0, 'v');
    return out;
}

QByteArray ModelFiles::gguf(const QList<GgufTensor>& tensors, quint32 alignment)
{
    QByteArray out("GGUF");
    put<quint32>(out, 3);
    put<qint64>(out, tensors.size());
    put<qint64>(out, alignment != 0 ? 4 : 3);
    const auto key = [&](const QByteArray& name, quint32 type) {
        putGgufString(out, name);
        put<quint32>(out, type);
    };
    key("general.name", 8); // a string
    putGgufString(out, "modelo de teste");
    key("tokenizer.tokens", 9); // an array of two strings
    put<quint32>(out, 8);
    put<quint64>(out, 2);
    putGgufString(out, "<s>");
    putGgufString(out, "olá");
    key("sample_rate.scores", 9); // an array of three float32
    put<quint32>(out, 6);
    put<quint64>(out, 3);
    out.append(QByteArray(12, '\0'));
    if (alignment != 0) {
        key("general.alignment", 4); // a uint32
        put<quint32>(out, alignment);
    }
    const qint64 align = alignment != 0 ? alignment : 32;
    qint64 offset = 0;
    QList<qint64> sizes;
    for (int i = 0; i < tensors.size(); ++i) {
        const GgufTensor& tensor = tensors[i];
        putGgufString(out, "blk." + QByteArray::number(i) + ".weight");
        put<quint32>(out, quint32(tensor.shape.size()));
        qint64 elements = 1;
        for (qint64 dimension : tensor.shape) {
            put<qint64>(out, dimension);
            elements *= dimension;
        }
        put<quint32>(out, tensor.type);
        put<quint64>(out, offset);
        // f32, f16 and q8_0 (34 bytes a block of 32) cover what the tests use.
        const qint64 size = tensor.type == 0 ? elements * 4 : tensor.type == 1 ? elements * 2 : elements / 32 * 34;
        sizes.append(size);
        offset += padded(size, align);
    }
    if (!tensors.isEmpty())
        out.append(QByteArray(padded(out.size(), align) - out.size(), '\0'));
    for (qint64 size : sizes) {
        out.append(QByteArray(size, 'g'));
        out.append(QByteArray(padded(size, align) - size, '\0'));
    }
    return out;
}
