#pragma once

#include "Platform/AudioInput.h"

#include <QObject>
#include <QString>

// A scriptable microphone: tests choose its format, make start fail, and push buffers. It answers
// start and stop later on the event loop, as the real one does.
class FakeAudioInput final : public AudioInput {
public:
    std::optional<AudioFormat> deviceFormat = AudioFormat{16000, 1, AudioFormat::SampleType::int16};
    QString startFailure; // when set, start() answers with a PlatformError of this text
    int startCount = 0;
    int stopCount = 0;

    std::optional<AudioFormat> format() override { return deviceFormat; }
    void start(BufferHandler handler, StartedHandler onStarted, FailureHandler onFailure) override;
    void stop(DrainedHandler onDrained) override;
    bool isRunning() const override { return m_running; }

    // Delivers one buffer as the capture thread would; ignored unless running.
    void deliver(QByteArrayView interleavedFrames);
    // The device goes away, reported as the real input does on the main thread; ignored unless running.
    void disconnect();

private:
    void post(std::function<void()> call);

    BufferHandler m_handler;
    FailureHandler m_onFailure;
    bool m_running = false;
    // Answers still queued when the fake goes are dropped with it.
    QObject m_context;
};
