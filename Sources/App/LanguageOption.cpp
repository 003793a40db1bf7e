#include "LanguageOption.h"

const QList<LanguageOption>& LanguageOption::all()
{
    static const QList<LanguageOption> options = {
        {QStringLiteral("pt-BR"), QStringLiteral("Português (Brasil)")},
        {QStringLiteral("en-US"), QStringLiteral("English (US)")},
        {QStringLiteral("es-ES"), QStringLiteral("Español")},
        {QStringLiteral("fr-FR"), QStringLiteral("Français")},
        {QStringLiteral("de-DE"), QStringLiteral("Deutsch")},
        {QStringLiteral("it-IT"), QStringLiteral("Italiano")},
    };
    return options;
}
