#include "FakeMediaReader.h"

bool FakeMediaReader::openFirstAudioTrack(const QString&)
{
    return hasAudioTrack;
}

bool FakeMediaReader::startReading()
{
    if (startFailure)
        m_outcome = {true, *startFailure};
    return !startFailure;
}

std::optional<std::span<const qint16>> FakeMediaReader::nextChunk()
{
    if (chunksDelivered < chunks.size())
        return std::span<const qint16>(chunks[chunksDelivered++]);
    if (failureAtEnd)
        m_outcome = {true, *failureAtEnd};
    return std::nullopt;
}
