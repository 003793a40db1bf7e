#include "ModelDownloader.h"

// Kept in a file of its own so that a test build of the whole program can link its own addresses
// instead; the program itself has only these, and nothing at run time can change them.
const ModelDownloader::Addresses ModelDownloader::kPublishedAddresses{
    QUrl(QStringLiteral("https://huggingface.co/ggerganov/whisper.cpp/resolve/main/")),
    QUrl(QStringLiteral("https://huggingface.co/ggml-org/whisper-vad/resolve/main/")),
    QUrl(QStringLiteral("https://huggingface.co/handy-computer/nemotron-3.5-asr-streaming-0.6b-gguf/resolve/main/")),
};
