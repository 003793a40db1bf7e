#pragma once

#include "Platform/AudioInput.h"

#include <QAudioDevice>
#include <QPointer>
#include <QThread>

#include <memory>

class CaptureWorker;

// The microphone through Qt Multimedia on PulseAudio's default source, in the device's preferred
// format. Capture runs on a thread of its own, from the first recording for as long as this input
// lives, which also runs the buffer handler; the main thread only posts to it.
class PulseAudioInput final : public AudioInput {
public:
    PulseAudioInput();
    ~PulseAudioInput() override;

    std::optional<AudioFormat> format() override;
    void start(BufferHandler handler, StartedHandler onStarted, FailureHandler onFailure) override;
    void stop(DrainedHandler onDrained) override;
    bool isRunning() const override;

private:
    void answerStart(quint64 capture, const QString& failure);
    void reportLoss(quint64 capture);
    void fail(const Error& error);
    void postToMainThread(std::function<void()> call) const;

    // Lives on the thread that made this input: the capture thread's answers are posted to it.
    const std::unique_ptr<QObject> m_mainThread;
    StartedHandler m_onStarted;
    FailureHandler m_onFailure;
    // Counts the captures, so an answer meant for an earlier one is ignored.
    quint64 m_capture = 0;
    QAudioDevice m_device;
    bool m_deviceLooked = false;
    QThread m_thread;
    // Lives on m_thread; deleted once it has ended.
    CaptureWorker* const m_worker;
    bool m_running = false;
};
