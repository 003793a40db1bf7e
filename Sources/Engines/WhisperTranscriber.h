#pragma once

#include "DictationOptions.h"
#include "Platform/AudioConverter.h"
#include "Platform/AudioInput.h"
#include "Platform/PlatformServices.h"
#include "SpeechGate.h"
#include "TranscriptionEngine.h"
#include "WhisperError.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QProcess>
#include <QStringList>
#include <QTimer>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

class WavWriter;

// Records the microphone into a 16 kHz mono 16-bit WAV while the key is held and hands back the
// trimmed transcript of whisper.cpp's `whisper-cli`. A whisper-cli that reads standard input starts
// at key down, so its model loads while the user speaks, and gets the finished WAV at release;
// an older one starts at release on the file. No partial text.
class WhisperTranscriber final : public TranscriptionEngine {
    Q_OBJECT
public:
    using ConverterFactory = std::function<std::unique_ptr<AudioConverter>(const AudioFormat& from, int targetRate)>;
    // How long whisper-cli may take, from the release, to answer for a recording of this length.
    using AnswerBound = std::function<std::chrono::milliseconds(std::chrono::milliseconds recording)>;

    static constexpr int kSampleRate = 16000;

    // `waitsOnStandardInput` tells whether whisper-cli still loads its model at the release.
    WhisperTranscriber(std::unique_ptr<AudioInput> audioEngine, ConverterFactory makeConverter,
        PlatformServices::InputWaitProbe waitsOnStandardInput, DictationOptions options, QObject* parent = nullptr);
    ~WhisperTranscriber() override;

    void start(PartialCallback onPartial, FinalCallback onFinal, ErrorCallback onError) override;
    void finish() override;
    void cancel() override;
    bool providesPartials() const override { return false; }
    std::optional<Timing> timing() const override;

    static std::chrono::milliseconds defaultAnswerBound(std::chrono::milliseconds recording);
    void setAnswerBound(AnswerBound bound) { m_answerBound = std::move(bound); }

    // Looked up afresh at every call: the user may install or remove things at any time.
    static std::optional<QString> binaryURL();
    // The model file named `fileName` in the models folder, or else the first model there.
    static std::optional<QString> modelURL(const QString& fileName);
    static bool isAvailable(const QString& modelFileName);
    // Where whisper-cli is looked for, in order: beside our own executable, then the system; PATH
    // comes after all of them.
    static QStringList binaryCandidates();
    // The first candidate that is an executable file.
    static std::optional<QString> firstExecutable(const QStringList& candidates);

private:
    struct Recording;

    // Where the time of one dictation went, in milliseconds since key down; -1 for "never".
    struct Timeline {
        qint64 capturing = -1;
        qint64 released = -1;
        qint64 inputClosed = -1;
        // whisper-cli said it had read the whole recording.
        qint64 audioRead = -1;
        qint64 done = -1;
    };
    // What the key's release leaves: the audio recorded, and what the speech gate heard in it.
    struct Recorded {
        qint64 bytes = 0;
        SpeechGate::Hearing hearing;
    };

    void stopRecording(std::function<void(const Recorded&)> onStopped);
    void dropRecording();
    void transcribe(const Recorded& recorded);
    void abandonRecording(const Error& error);
    void dropUnheard(SpeechGate::Verdict verdict);
    void armDeadline(qint64 recordedBytes);
    void giveUp();
    void launchWhenStdinIsRead(const QString& binary, const QString& model);
    void launch(const QString& binary, const QString& model, const QString& input, bool segmented);
    void sendRecording();
    void complete(int exitStatus, const QString& outputBase, const QByteArray& errorOutput);
    std::optional<WhisperError> damagedModel(const QByteArray& errorOutput) const;
    QString timingNote() const;
    void answerWithText(const QString& text);
    void answerWithError(const Error& error);
    void retireProcess();
    void cleanup();
    void markDone();
    QStringList arguments(const QString& model, const QString& input, bool segmented) const;

    std::unique_ptr<AudioInput> m_audioEngine;
    ConverterFactory m_makeConverter;
    const PlatformServices::InputWaitProbe m_waitsOnStandardInput;
    const DictationOptions m_options;
    std::shared_ptr<Recording> m_audioFile;
    std::optional<QString> m_wavURL;
    QString m_model;
    SpeechGate::Hearing m_heard;
    AnswerBound m_answerBound = &WhisperTranscriber::defaultAnswerBound;
    // Runs from the release while whisper-cli works; when it fires, whisper-cli is ended.
    QTimer m_deadline;
    FinalCallback m_onFinal;
    ErrorCallback m_onError;
    QPointer<QProcess> m_process;
    // The child's end, kept when it came before the release: it is answered after finish().
    std::function<void()> m_exitedEarly;
    bool m_readsStdin = false;
    // Whether the child started at key down had its model loaded when the key was released.
    std::optional<bool> m_modelReadyAtRelease;
    bool m_segmented = false;
    bool m_cancelled = false;
    QElapsedTimer m_sinceKeyDown;
    Timeline m_timeline;
};
