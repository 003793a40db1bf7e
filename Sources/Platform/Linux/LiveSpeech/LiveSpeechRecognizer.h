#pragma once

#include "LiveSpeechEngine.h"
#include "Platform/SpeechRecognizer.h"

// The live engine behind the recogniser seam, for one language of the model. Recognisers of the
// process share one engine (LiveSpeechEngine::forInstalledModel()), so the model is loaded once.
class LiveSpeechRecognizer final : public SpeechRecognizer {
public:
    LiveSpeechRecognizer(std::shared_ptr<LiveSpeechEngine> engine, QString language);

    // The recogniser for a locale such as "en-US" over the installed model, or nothing when the
    // model does not transcribe that language or is not installed.
    static std::shared_ptr<SpeechRecognizer> forLocale(const QString& localeIdentifier);

    // The model's language for a locale identifier such as "pt_br" ("pt-BR"), or nothing when the
    // model does not transcribe that language.
    static std::optional<QString> languageFor(const QString& localeIdentifier);

    // Available while its model file is installed.
    bool isAvailable() const override;
    // Everything is recognised on this machine.
    bool supportsOnDeviceRecognition() const override { return true; }
    std::shared_ptr<Request> makeRequest(bool requiresOnDeviceRecognition) override;
    std::shared_ptr<Task> startTask(std::shared_ptr<Request> request, ResultHandler handler) override;
    void prepare() override;

private:
    std::shared_ptr<LiveSpeechEngine> m_engine;
    QString m_language;
};
