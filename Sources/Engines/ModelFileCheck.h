#pragma once

#include <QString>

#include <optional>

class QIODevice;

// Reads what a model file says about itself — whisper.cpp's ggml header and tensor table, or a GGUF
// header with its metadata and tensor infos — and tells from that alone whether the bytes present
// are the whole file, the start of one that a download can continue, or something else. Neither
// format stores its own length, but both describe every tensor precisely enough to add it up.
class ModelFileCheck final {
public:
    enum class Format {
        whisperGgml, // a Whisper model as whisper-cli loads it
        voiceActivityGgml, // whisper.cpp's Silero voice activity model
        gguf,
    };
    enum class Verdict {
        complete, // every byte the structure announces, and not one more
        incomplete, // a faithful start: the file ends before its structure does
        invalid, // not this format, or longer than its structure allows
    };

    static Verdict check(const QString& path, Format format);
    // Reads from the device's start; it must be open and seekable.
    static Verdict check(QIODevice& file, Format format);
    // Where a Whisper model's tensors begin, after its header, mel filters and vocabulary; nothing
    // when the file is no Whisper model or ends before. Reads from the device's start.
    static std::optional<qint64> whisperTensorsStart(QIODevice& file);
};
