#pragma once

#include "Platform/AudioInput.h"

#include <QAudioDevice>
#include <QPointer>
#include <QThread>

class CaptureWorker;

// The microphone through Qt Multimedia on PulseAudio's default source, in the device's preferred
// format. Capture runs on a thread of its own, which also runs the buffer handler.
class PulseAudioInput final : public AudioInput {
public:
    PulseAudioInput();
    ~PulseAudioInput() override;

    std::optional<AudioFormat> format() override;
    void start(BufferHandler handler) override;
    void stop() override;
    bool isRunning() const override;

private:
    QAudioDevice m_device;
    bool m_deviceLooked = false;
    QThread m_thread;
    CaptureWorker* m_worker = nullptr;
    bool m_running = false;
};
