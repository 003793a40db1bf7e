#pragma once

#include <QByteArray>
#include <QList>

// Model files written the way whisper.cpp and ggml write them, small enough for tests.
namespace ModelFiles {

// A Whisper model in whisper.cpp's ggml layout, without layers (its 11 tensors), exactly `bytes`
// long (at least a few kilobytes); its weights are `fill`.
QByteArray whisper(qint64 bytes, char fill = 'w');

// whisper.cpp's Silero voice activity model layout, with one encoder layer (its 9 tensors).
QByteArray voiceActivity();

struct GgufTensor {
    QList<qint64> shape;
    quint32 type = 0; // f32
};
// A GGUF file (version 3) with a few metadata values of every kind, `alignment` stated when not 0.
QByteArray gguf(const QList<GgufTensor>& tensors, quint32 alignment = 0);

}
