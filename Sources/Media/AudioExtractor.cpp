#include "AudioExtractor.h"

#include "AudioExtractorError.h"
#include "Platform/MediaReader.h"
#include "Shared/WavWriter.h"

#include <QScopeGuard>

namespace {

QString orUnknown(const QString& reason)
{
    return reason.isEmpty() ? QStringLiteral("desconhecida") : reason;
}

PlatformError destinationError(const WavWriter& file)
{
    return PlatformError(QStringLiteral("Não foi possível gravar o áudio extraído: ") + file.errorString());
}

} // namespace

void AudioExtractor::extractWAV(
    MediaReader& reader, const QString& source, const QString& destination, const std::function<bool()>& shouldStop, quint64 dataLimit)
{
    if (!reader.openFirstAudioTrack(source))
        throw AudioExtractorError::noAudioTrack();
    if (!reader.startReading())
        throw AudioExtractorError::readFailed(orUnknown(reader.outcome().reason));

    WavWriter file(destination, MediaReader::sampleRate, 1);
    if (!file.open())
        throw destinationError(file);
    // Until the track has been read to its end the header keeps saying "no data", so a file cut
    // short by a failure or a cancel is never taken for a whole one.
    auto leaveIncomplete = qScopeGuard([&file] { file.abandon(); });

    quint64 dataBytes = 0;
    while (!(shouldStop && shouldStop())) {
        const auto chunk = reader.nextChunk();
        if (!chunk) {
            const MediaReader::Outcome outcome = reader.outcome();
            if (outcome.failed)
                throw AudioExtractorError::readFailed(orUnknown(outcome.reason));
            leaveIncomplete.dismiss();
            if (!file.close())
                throw destinationError(file);
            return;
        }
        dataBytes += chunk->size_bytes();
        // Past this the header's sizes would wrap round and whisper-cli would read garbage lengths.
        if (dataBytes > dataLimit)
            throw AudioExtractorError::readFailed(QStringLiteral("o áudio passa de 37 horas, o máximo de um arquivo WAV"));
        if (!file.append(chunk->data(), chunk->size()))
            throw destinationError(file);
    }
}
