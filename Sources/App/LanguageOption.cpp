#include "LanguageOption.h"

#include "Shared/LiveSpeechModel.h"

const QList<LanguageOption>& LanguageOption::all()
{
    // The languages the live native engine transcribes; Whisper knows each of them too.
    static const QList<LanguageOption> options = [] {
        QList<LanguageOption> list;
        for (const LiveSpeechModel::Locale& locale : LiveSpeechModel::transcriptionLocales())
            list.append({locale.id, locale.label});
        return list;
    }();
    return options;
}
