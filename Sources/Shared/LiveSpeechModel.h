#pragma once

#include <QList>
#include <QString>
#include <QStringList>

// The model of the live native engine: one GGUF file of the streaming Nemotron recogniser in the
// models folder, which the downloader installs and the recogniser loads.
namespace LiveSpeechModel {
// The file name in the models folder, e.g. "nemotron-3.5-asr-streaming-0.6b-Q4_K_M.gguf".
QString fileName();
// AppPaths::modelsFolder() + "/" + fileName().
QString installedPath();
// The published file's size in MB, which the downloader's catalogue shows.
int sizeMB();

// A language the model transcribes, with the name the language menu gives it.
struct Locale {
    QString id; // the model's locale tag, e.g. "pt-BR"
    QString label; // in its own language, e.g. "Português (Brasil)"
};
// The locales the model's authors call ready for transcription, Brazilian Portuguese first (the
// others their tokenizer knows need fine-tuning).
const QList<Locale>& transcriptionLocales();
bool transcribes(const QString& localeIdentifier);
// The locales the model transcribes ("pt-BR", "en-US"…), as its "general.languages" lists them.
const QStringList& languages();
}
