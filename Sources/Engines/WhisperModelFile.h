#pragma once

#include <QString>

// A ggml Whisper model file as whisper.cpp reads it: a header, the mel filters, the vocabulary,
// then its tensors up to the end of the file. whisper-cli takes a file cut short inside its
// vocabulary or its first tensor for an empty test model and answers nothing, so a dictation that
// came back empty looks here before calling it silence.
class WhisperModelFile {
public:
    // Whether the file ends inside one of its parts. A file of another format is not judged, and
    // whisper.cpp's own test models, which end exactly where their tensors would begin, are whole.
    static bool isCutShort(const QString& path);
};
