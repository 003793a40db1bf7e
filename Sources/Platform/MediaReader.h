#pragma once

#include <QString>
#include <QtGlobal>

#include <memory>
#include <optional>
#include <span>

// Decodes the first audio track of a local media file (any container or codec the platform reads)
// into 16 kHz mono signed 16-bit samples, handed over chunk by chunk as they are decoded, so a
// long film never sits in memory whole.
class MediaReader {
public:
    static constexpr int sampleRate = 16000;

    // How reading ended, once nextChunk() has nothing more.
    struct Outcome {
        bool failed = false;
        QString reason; // why it failed, in words for the user; empty when the decoder gave none
    };

    virtual ~MediaReader() = default;

    // Opens the file and chooses its first audio track in file order; false when there is none,
    // which is also the answer for a missing, unreadable or non-media file.
    virtual bool openFirstAudioTrack(const QString& path) = 0;
    // Prepares decoding of the chosen track; false, with the reason in outcome(), when it cannot.
    virtual bool startReading() = 0;
    // The next decoded chunk (possibly empty), valid until the next call; nothing at the end of the
    // track or when reading failed.
    virtual std::optional<std::span<const qint16>> nextChunk() = 0;
    virtual Outcome outcome() const = 0;
};
