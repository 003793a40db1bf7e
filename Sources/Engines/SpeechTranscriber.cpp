#include "SpeechTranscriber.h"

#include "Shared/Logging.h"
#include "TranscriberError.h"

#include <QCoreApplication>
#include <QPointer>
#include <QTimer>

#include <vector>

namespace {

// Runs on the capture thread. It owns the converter and the request itself, so it never touches the
// engine, which may be gone by the time a last buffer arrives.
AudioInput::BufferHandler makeTap(std::shared_ptr<SpeechRecognizer::Request> request, std::shared_ptr<AudioConverter> converter)
{
    return [request = std::move(request), converter = std::move(converter)](QByteArrayView frames) {
        std::vector<qint16> samples;
        if (!converter->convert(frames, samples)) {
            qCWarning(lcSpeech) << "dropped a microphone buffer that could not be converted";
            return;
        }
        if (!samples.empty())
            request->append(samples);
    };
}

}

SpeechTranscriber::SpeechTranscriber(std::unique_ptr<AudioInput> audioEngine, RecognizerFactory makeRecognizer,
    ConverterFactory makeConverter, DictationOptions options, std::chrono::milliseconds finalDelay, QObject* parent)
    : TranscriptionEngine(parent)
    , m_audioEngine(std::move(audioEngine))
    , m_makeRecognizer(std::move(makeRecognizer))
    , m_makeConverter(std::move(makeConverter))
    , m_options(std::move(options))
    , m_finalDelay(finalDelay)
{
}

SpeechTranscriber::~SpeechTranscriber()
{
    cancel();
}

void SpeechTranscriber::start(PartialCallback onPartial, FinalCallback onFinal, ErrorCallback onError)
{
    cancel();

    const QString& locale = m_options.localeIdentifier;
    // Checked before the microphone is touched: an unknown language must fail at once and leave
    // the microphone free.
    auto recognizer = m_makeRecognizer(locale);
    if (!recognizer || !recognizer->isAvailable()) {
        qCInfo(lcSpeech) << "no speech recogniser for" << locale;
        throw TranscriberError::recognizerUnavailable(locale);
    }
    m_recognizer = recognizer;

    // The live engine always recognises on the device, so there this only decides the request's
    // flag; a recogniser that could use the network would honour it.
    const bool onDevice = m_options.preferOnDevice && recognizer->supportsOnDeviceRecognition();
    auto request = recognizer->makeRequest(onDevice);
    m_request = request;
    m_onFinal = std::move(onFinal);
    m_lastTranscription.clear();
    m_finished = false;
    ++m_recognition;

    try {
        m_audioEngine->start(
            makeTap(request, makeConverterForMicrophone()), [] { qCDebug(lcSpeech) << "microphone capturing"; },
            [this, onError](const Error& error) { fail(error, onError); });
    } catch (const Error& error) {
        qCWarning(lcSpeech) << "microphone did not start:" << error.description();
        cancel();
        throw;
    }
    m_task = recognizer->startTask(request, makeResultHandler(std::move(onPartial), std::move(onError)));
    qCDebug(lcSpeech) << "recognising" << locale << "on device:" << onDevice;
}

std::unique_ptr<AudioConverter> SpeechTranscriber::makeConverterForMicrophone()
{
    const std::optional<AudioFormat> format = m_audioEngine->format();
    if (!format)
        throw PlatformError(QStringLiteral("Nenhum microfone disponível."));
    auto converter = m_makeConverter(*format, SpeechRecognizer::sampleRate);
    if (!converter)
        throw PlatformError(QStringLiteral("O formato de áudio do microfone não é suportado."));
    return converter;
}

// The handler runs on the recogniser's thread and only hands everything to the main thread, where
// the engine may already be gone.
SpeechRecognizer::ResultHandler SpeechTranscriber::makeResultHandler(PartialCallback onPartial, ErrorCallback onError)
{
    return [self = QPointer<SpeechTranscriber>(this), recognition = m_recognition, onPartial = std::move(onPartial),
               onError = std::move(onError)](std::optional<Result> result, std::shared_ptr<const Error> error) {
        QCoreApplication* app = QCoreApplication::instance();
        if (!app)
            return;
        QMetaObject::invokeMethod(
            app,
            [=] {
                if (self)
                    self->handleResult(recognition, result, error, onPartial, onError);
            },
            Qt::QueuedConnection);
    };
}

void SpeechTranscriber::handleResult(quint64 recognition, const std::optional<Result>& result, const std::shared_ptr<const Error>& error,
    const PartialCallback& onPartial, const ErrorCallback& onError)
{
    // Once answered or cancelled, whatever was still on its way is dropped, partial texts included.
    if (recognition != m_recognition || m_finished)
        return;
    if (result) {
        m_lastTranscription = result->text;
        if (result->isFinal) {
            deliverFinal();
            return;
        }
        if (onPartial)
            onPartial(m_lastTranscription);
    }
    if (error)
        handleError(*error, onError);
}

void SpeechTranscriber::handleError(const Error& error, const ErrorCallback& onError)
{
    // After the key went up the dictation always ends with a text, possibly empty.
    if (!m_request || !m_audioEngine->isRunning()) {
        deliverFinal();
        return;
    }
    if (!m_lastTranscription.isEmpty()) {
        qCInfo(lcSpeech) << "recogniser error ignored, text was already heard:" << error.description();
        return;
    }
    fail(error, onError);
}

// Ends the dictation with an error while it is still recording: nothing of it is answered again.
void SpeechTranscriber::fail(const Error& error, const ErrorCallback& onError)
{
    qCWarning(lcSpeech) << "dictation failed:" << error.description();
    cancel();
    if (onError)
        onError(error);
}

void SpeechTranscriber::finish()
{
    stopAudio();
    QTimer::singleShot(m_finalDelay, Qt::PreciseTimer, this, [this, recognition = m_recognition] {
        if (recognition == m_recognition)
            deliverFinal();
    });
}

void SpeechTranscriber::deliverFinal()
{
    if (m_finished)
        return;
    m_finished = true;
    cancelTask();
    if (FinalCallback onFinal = std::exchange(m_onFinal, nullptr))
        onFinal(m_lastTranscription);
}

// A request still waiting for the capture thread's last buffers hears its end now: the engine may
// go before they come, and any that still come are ignored once it is cancelled.
void SpeechTranscriber::cancel()
{
    stopAudio();
    if (auto request = std::exchange(m_draining, nullptr))
        request->endAudio();
    cancelTask();
    m_onFinal = nullptr;
    m_finished = true;
}

// The request hears the end of its audio once the capture thread has handed it the last buffer.
void SpeechTranscriber::stopAudio()
{
    std::shared_ptr<SpeechRecognizer::Request> request = std::exchange(m_request, nullptr);
    if (!request)
        return;
    if (!m_audioEngine->isRunning()) {
        request->endAudio();
        return;
    }
    m_draining = request;
    m_audioEngine->stop([this, request] {
        request->endAudio();
        if (m_draining == request)
            m_draining.reset();
    });
}

void SpeechTranscriber::cancelTask()
{
    if (auto task = std::exchange(m_task, nullptr))
        task->cancel();
}
