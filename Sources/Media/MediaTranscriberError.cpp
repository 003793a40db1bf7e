#include "MediaTranscriberError.h"

QString MediaTranscriberError::description() const
{
    switch (m_case) {
    case Case::downloadFailed:
        return QStringLiteral("Falha ao baixar o vídeo: ") + m_reason;
    case Case::modelMissing:
        return QStringLiteral("O modelo Whisper ainda não foi baixado. Use o menu \"Modelo Whisper\" primeiro.");
    case Case::cancelled:
        return QStringLiteral("Operação cancelada.");
    }
    return {};
}
