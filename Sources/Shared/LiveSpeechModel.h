#pragma once

#include <QString>
#include <QStringList>

// The model of the live native engine: one GGUF file of the streaming Nemotron recogniser in the
// models folder, which the downloader installs and the recogniser loads.
namespace LiveSpeechModel {
// The file name in the models folder, e.g. "nemotron-3.5-asr-streaming-0.6b-Q4_K_M.gguf".
QString fileName();
// AppPaths::modelsFolder() + "/" + fileName().
QString installedPath();
// The locales the model transcribes ("pt-BR", "en-US"…), as its "general.languages" lists them.
const QStringList& languages();
}
