#pragma once

#include "DictationOptions.h"
#include "Platform/AudioConverter.h"
#include "Platform/AudioInput.h"
#include "Platform/SpeechRecognizer.h"
#include "TranscriptionEngine.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

// The native engine: streams the microphone into the platform's live recogniser while the key is
// held, reports the text so far as it grows, and after finish() answers with the recogniser's final
// text, or with the last text heard when no final result comes within the final delay.
class SpeechTranscriber final : public TranscriptionEngine {
    Q_OBJECT
public:
    using RecognizerFactory = std::function<std::shared_ptr<SpeechRecognizer>(const QString& localeIdentifier)>;
    using ConverterFactory = std::function<std::unique_ptr<AudioConverter>(const AudioFormat& from, int targetSampleRate)>;

    static constexpr std::chrono::milliseconds defaultFinalDelay{2000};

    SpeechTranscriber(std::unique_ptr<AudioInput> audioEngine, RecognizerFactory makeRecognizer, ConverterFactory makeConverter,
        DictationOptions options, std::chrono::milliseconds finalDelay = defaultFinalDelay, QObject* parent = nullptr);
    ~SpeechTranscriber() override;

    void start(PartialCallback onPartial, FinalCallback onFinal, ErrorCallback onError) override;
    void finish() override;
    void cancel() override;
    bool providesPartials() const override { return true; }

private:
    using Result = SpeechRecognizer::Result;

    std::unique_ptr<AudioConverter> makeConverterForMicrophone();
    SpeechRecognizer::ResultHandler makeResultHandler(PartialCallback onPartial, ErrorCallback onError);
    void handleResult(quint64 recognition, const std::optional<Result>& result, const std::shared_ptr<const Error>& error,
        const PartialCallback& onPartial, const ErrorCallback& onError);
    void handleError(const Error& error, const ErrorCallback& onError);
    void fail(const Error& error, const ErrorCallback& onError);
    void deliverFinal();
    void stopAudio();
    void cancelTask();

    const std::unique_ptr<AudioInput> m_audioEngine;
    std::shared_ptr<SpeechRecognizer> m_recognizer;
    std::shared_ptr<SpeechRecognizer::Request> m_request;
    // Stopped, until the capture thread has handed it its last buffer.
    std::shared_ptr<SpeechRecognizer::Request> m_draining;
    std::shared_ptr<SpeechRecognizer::Task> m_task;
    QString m_lastTranscription;
    bool m_finished = false;
    FinalCallback m_onFinal;

    // Counts the recognitions of this object, so a result or timer of an earlier one is ignored.
    quint64 m_recognition = 0;
    const RecognizerFactory m_makeRecognizer;
    const ConverterFactory m_makeConverter;
    const DictationOptions m_options;
    const std::chrono::milliseconds m_finalDelay;
};
