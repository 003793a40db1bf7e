#include "LiveSpeechModel.h"

#include "AppPaths.h"

#include <algorithm>

namespace LiveSpeechModel {

QString fileName()
{
    return QStringLiteral("nemotron-3.5-asr-streaming-0.6b-Q4_K_M.gguf");
}

QString installedPath()
{
    return AppPaths::modelsFolder() + QLatin1Char('/') + fileName();
}

int sizeMB()
{
    // Q4_K_M as published; the Q8_0 file would be 716.
    return 473;
}

const QList<Locale>& transcriptionLocales()
{
    static const QList<Locale> locales = {
        {QStringLiteral("pt-BR"), QStringLiteral("Português (Brasil)")},
        {QStringLiteral("pt-PT"), QStringLiteral("Português (Portugal)")},
        {QStringLiteral("en-US"), QStringLiteral("English (US)")},
        {QStringLiteral("en-GB"), QStringLiteral("English (UK)")},
        {QStringLiteral("es-ES"), QStringLiteral("Español (España)")},
        {QStringLiteral("es-US"), QStringLiteral("Español (Estados Unidos)")},
        {QStringLiteral("fr-FR"), QStringLiteral("Français (France)")},
        {QStringLiteral("fr-CA"), QStringLiteral("Français (Canada)")},
        {QStringLiteral("de-DE"), QStringLiteral("Deutsch")},
        {QStringLiteral("it-IT"), QStringLiteral("Italiano")},
        {QStringLiteral("nl-NL"), QStringLiteral("Nederlands")},
        {QStringLiteral("tr-TR"), QStringLiteral("Türkçe")},
        {QStringLiteral("ru-RU"), QStringLiteral("Русский")},
        {QStringLiteral("uk-UA"), QStringLiteral("Українська")},
        {QStringLiteral("ar-AR"), QStringLiteral("العربية")},
        {QStringLiteral("hi-IN"), QStringLiteral("हिन्दी")},
        {QStringLiteral("ja-JP"), QStringLiteral("日本語")},
        {QStringLiteral("ko-KR"), QStringLiteral("한국어")},
        {QStringLiteral("vi-VN"), QStringLiteral("Tiếng Việt")},
    };
    return locales;
}

bool transcribes(const QString& localeIdentifier)
{
    const QList<Locale>& locales = transcriptionLocales();
    return std::any_of(locales.begin(), locales.end(), [&](const Locale& locale) { return locale.id == localeIdentifier; });
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
