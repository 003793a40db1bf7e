#pragma once

#include "Platform/MediaReader.h"

#include <vector>

// A scripted decoder: tests choose whether the file has a track, whether reading starts, the
// chunks it delivers and whether reading then ends failed; it notes how far it was read.
class FakeMediaReader final : public MediaReader {
public:
    bool hasAudioTrack = true;
    std::optional<QString> startFailure; // reading cannot start, for this reason ("" = none given)
    std::vector<std::vector<qint16>> chunks; // delivered in order
    std::optional<QString> failureAtEnd; // after the last chunk reading ends failed, for this reason

    size_t chunksDelivered = 0;

    bool openFirstAudioTrack(const QString& path) override;
    bool startReading() override;
    std::optional<std::span<const qint16>> nextChunk() override;
    Outcome outcome() const override { return m_outcome; }

private:
    Outcome m_outcome;
};
