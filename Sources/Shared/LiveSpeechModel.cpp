#include "LiveSpeechModel.h"

#include "AppPaths.h"

namespace LiveSpeechModel {

QString fileName()
{
    return QStringLiteral("nemotron-3.5-asr-streaming-0.6b-Q4_K_M.gguf");
}

QString installedPath()
{
    return AppPaths::modelsFolder() + QLatin1Char('/') + fileName();
}

const QStringList& languages()
{
    // Its transcription-ready and broad-coverage locales; the eight it only knows after fine-tuning
    // are left out, as the model leaves them out of its own list.
    static const QStringList locales = {"en-US", "en-GB", "es-US", "es-ES", "fr-FR", "fr-CA", "it-IT", "pt-BR", "pt-PT", "nl-NL", "de-DE",
        "tr-TR", "ru-RU", "ar-AR", "hi-IN", "ja-JP", "ko-KR", "vi-VN", "uk-UA", "pl-PL", "sv-SE", "cs-CZ", "nb-NO", "da-DK", "bg-BG",
        "fi-FI", "hr-HR", "sk-SK", "zh-CN", "hu-HU", "ro-RO", "et-EE"};
    return locales;
}

}
