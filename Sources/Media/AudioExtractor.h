#pragma once

#include <QString>
#include <QtGlobal>

#include <functional>

class MediaReader;

// Turns the first audio track of a media file into the WAV that whisper-cli reads: 16 kHz, mono,
// signed 16-bit little-endian behind a 44-byte header, streamed chunk by chunk.
namespace AudioExtractor {

// The most PCM a WAV header can count (its RIFF size field holds the data size + 36): about 37
// hours at 16 kHz mono 16-bit.
constexpr quint64 maxDataBytes = 0xFFFFFFFFull - 36;

// Through `reader`, refusing audio longer than `dataLimit` bytes of PCM. Blocking: call it on a
// worker thread, never on the main thread. Throws AudioExtractorError, or a PlatformError when the
// destination cannot be written. `shouldStop` is asked between chunks; when it answers true the
// extraction ends early and the WAV is left incomplete (the job was cancelled).
void extractWAV(MediaReader& reader, const QString& source, const QString& destination, const std::function<bool()>& shouldStop = {},
    quint64 dataLimit = maxDataBytes);

}
