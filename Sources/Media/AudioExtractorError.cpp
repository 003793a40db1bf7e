#include "AudioExtractorError.h"

QString AudioExtractorError::description() const
{
    switch (m_case) {
    case Case::readFailed:
        return QStringLiteral("Falha ao extrair o áudio: ") + m_reason;
    case Case::noAudioTrack:
        return QStringLiteral("O arquivo não contém trilha de áudio.");
    }
    return {};
}
