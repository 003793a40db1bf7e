#include "AudioExtractorError.h"

QString AudioExtractorError::description() const
{
    switch (errorCase()) {
    case Case::readFailed: return QStringLiteral("Falha ao extrair o áudio: ") + detail();
    case Case::noAudioTrack: return QStringLiteral("O arquivo não contém trilha de áudio.");
    }
    return {};
}
