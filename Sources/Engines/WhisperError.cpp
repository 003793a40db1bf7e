#include "WhisperError.h"

QString WhisperError::description() const
{
    switch (errorCase()) {
    case Case::transcriptionFailed: return QStringLiteral("Falha na transcrição Whisper: ") + detail();
    case Case::notInstalled: return QStringLiteral("whisper-cli não encontrado. Instale com: sudo apt install whisper.cpp");
    case Case::modelMissing: return QStringLiteral("Modelo Whisper não encontrado em ~/.local/share/Voxaria/models/");
    case Case::modelDamaged:
        return QStringLiteral("O modelo Whisper %1 está danificado: remova-o e baixe-o de novo no menu Modelo Whisper.").arg(detail());
    case Case::timedOut: return QStringLiteral("O Whisper não respondeu a tempo e foi interrompido. Tente de novo.");
    case Case::tooQuiet: return QStringLiteral("Fale mais perto do microfone ou aumente o volume de entrada.");
    }
    return {};
}
