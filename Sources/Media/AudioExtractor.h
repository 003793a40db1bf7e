#pragma once

#include <QString>

#include <functional>

// Turns the first audio track of a media file into the WAV that whisper-cli reads: 16 kHz, mono,
// signed 16-bit little-endian behind a 44-byte header, streamed chunk by chunk.
namespace AudioExtractor {

// Blocking: call it on a worker thread, never on the main thread. Throws AudioExtractorError, or a
// PlatformError when the destination cannot be written. `shouldStop` is asked between chunks; when
// it answers true the extraction ends early and the WAV is left incomplete (the job was cancelled).
void extractWAV(const QString& source, const QString& destination, const std::function<bool()>& shouldStop = {});

}
