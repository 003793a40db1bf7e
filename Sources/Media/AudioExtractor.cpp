#include "AudioExtractor.h"

#include "Shared/Error.h"

void AudioExtractor::extractWAV(const QString&, const QString&, const std::function<bool()>&)
{
    throw PlatformError(QStringLiteral("extração de áudio indisponível"));
}
