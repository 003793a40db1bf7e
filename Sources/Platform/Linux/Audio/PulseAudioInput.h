#pragma once

#include "Platform/AudioInput.h"

#include <QAudioDevice>
#include <QPointer>
#include <QThread>

#include <memory>

class CaptureWorker;

// The microphone through Qt Multimedia on PulseAudio's default source, in the device's preferred
// format. Capture runs on a thread of its own, which also runs the buffer handler.
class PulseAudioInput final : public AudioInput {
public:
    PulseAudioInput();
    ~PulseAudioInput() override;

    std::optional<AudioFormat> format() override;
    void start(BufferHandler handler, FailureHandler onFailure) override;
    void stop() override;
    bool isRunning() const override;

private:
    void reportLoss(quint64 capture);

    // Lives on the thread that made this input: failures are handed to it.
    const std::unique_ptr<QObject> m_mainThread;
    FailureHandler m_onFailure;
    // Counts the captures, so a loss reported for an earlier one is ignored.
    quint64 m_capture = 0;
    QAudioDevice m_device;
    bool m_deviceLooked = false;
    QThread m_thread;
    CaptureWorker* m_worker = nullptr;
    bool m_running = false;
};
