#include "ModelDownloader.h"

// Kept in a file of its own so that a test build of the whole program can link its own address
// instead; the program itself has only this one, and nothing at run time can change it.
const QUrl ModelDownloader::kDefaultBaseAddress(QStringLiteral("https://huggingface.co/ggerganov/whisper.cpp/resolve/main/"));
