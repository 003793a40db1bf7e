#pragma once

#include "Platform/AudioConverter.h"
#include "Platform/AudioInput.h"
#include "TranscriptionEngine.h"

#include <QPointer>
#include <QProcess>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>

class WavWriter;

// Records the microphone into a 16 kHz mono 16-bit WAV while the key is held, then runs
// whisper.cpp's `whisper-cli` on it and hands back the trimmed transcript. No partial text.
class WhisperTranscriber final : public TranscriptionEngine {
    Q_OBJECT
public:
    using ConverterFactory = std::function<std::unique_ptr<AudioConverter>(const AudioFormat& from, int targetRate)>;

    static constexpr int kSampleRate = 16000;

    explicit WhisperTranscriber(std::unique_ptr<AudioInput> audioEngine = AudioInput::makeDefault(),
        ConverterFactory makeConverter = &AudioConverter::makeDefault, QObject* parent = nullptr);
    ~WhisperTranscriber() override;

    void start(PartialCallback onPartial, FinalCallback onFinal, ErrorCallback onError) override;
    void finish() override;
    void cancel() override;
    bool providesPartials() const override { return false; }

    // Looked up afresh at every call: the user may install or remove things at any time.
    static std::optional<QString> binaryURL();
    static std::optional<QString> modelURL();
    static bool isAvailable();
    // Where whisper-cli is looked for, in order: beside our own executable, then the system; PATH
    // comes after all of them.
    static QStringList binaryCandidates();
    // The first candidate that is an executable file.
    static std::optional<QString> firstExecutable(const QStringList& candidates);

private:
    struct Recording;

    // Whether what was recorded sounds like speech at all.
    bool stopRecording();
    void abandonRecording(const Error& error);
    void launch(const QString& binary, const QString& model);
    void complete(int exitStatus, const QString& outputBase, const QByteArray& errorOutput);
    void answerWithText(const QString& text);
    void answerWithError(const Error& error);
    void retireProcess();
    void cleanup();
    QStringList arguments(const QString& model, const QString& outputBase) const;

    std::unique_ptr<AudioInput> m_audioEngine;
    ConverterFactory m_makeConverter;
    std::shared_ptr<Recording> m_audioFile;
    std::optional<QString> m_wavURL;
    FinalCallback m_onFinal;
    ErrorCallback m_onError;
    QPointer<QProcess> m_process;
    bool m_cancelled = false;
};
