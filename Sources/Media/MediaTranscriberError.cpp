#include "MediaTranscriberError.h"

QString MediaTranscriberError::description() const
{
    switch (errorCase()) {
    case Case::downloadFailed: return QStringLiteral("Falha ao baixar o vídeo: ") + detail();
    case Case::modelMissing: return QStringLiteral("O modelo Whisper ainda não foi baixado. Use o menu \"Modelo Whisper\" primeiro.");
    case Case::cancelled: return QStringLiteral("Operação cancelada.");
    }
    return {};
}
