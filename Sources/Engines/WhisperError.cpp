#include "WhisperError.h"

QString WhisperError::description() const
{
    switch (errorCase()) {
    case Case::transcriptionFailed: return QStringLiteral("Falha na transcrição Whisper: ") + detail();
    case Case::notInstalled:
#ifdef Q_OS_MACOS
        return QStringLiteral("whisper-cli não encontrado. Instale com: brew install whisper-cpp");
#else
        return QStringLiteral("whisper-cli não encontrado. Instale com: sudo apt install whisper.cpp");
#endif
    case Case::modelMissing:
#ifdef Q_OS_MACOS
        return QStringLiteral("Modelo Whisper não encontrado em ~/Library/Application Support/Voxaria/models/");
#else
        return QStringLiteral("Modelo Whisper não encontrado em ~/.local/share/Voxaria/models/");
#endif
    }
    return {};
}
