#pragma once

#include "AudioFormat.h"
#include "Shared/Error.h"

#include <QByteArrayView>

#include <functional>
#include <memory>
#include <optional>

// The microphone. Buffers are delivered on a capture thread, never on the main thread, in the
// device's own format. Starting and stopping only post to that thread: the answers come back on the
// thread that called start and stop, through the handlers, so the caller never waits for the device.
class AudioInput {
public:
    using BufferHandler = std::function<void(QByteArrayView interleavedFrames)>;
    // Audio is being captured now.
    using StartedHandler = std::function<void()>;
    // Capture could not start, or the microphone went away while capturing (unplugged, sound server
    // restarted). Called at most once per start, and never after stop() or destruction; the input
    // is no longer running when it comes.
    using FailureHandler = std::function<void(const Error& error)>;
    // The last buffer of a stopped capture was handled: no buffer handler call runs afterwards.
    using DrainedHandler = std::function<void()>;

    virtual ~AudioInput() = default;

    // The format the microphone delivers, or nothing when there is no usable input device.
    virtual std::optional<AudioFormat> format() = 0;
    // Asks for capture and returns at once; the answer is onStarted or onFailure. Throws
    // PlatformError only when there is no microphone at all.
    virtual void start(BufferHandler handler, StartedHandler onStarted, FailureHandler onFailure) = 0;
    // Asks for capture to stop and returns at once; onDrained (may be empty) runs once the last
    // buffer was handled, unless the input is destroyed first.
    virtual void stop(DrainedHandler onDrained) = 0;
    // From start() until stop() or a failure.
    virtual bool isRunning() const = 0;

    // What the failure handler receives when the device went away.
    static PlatformError disconnected() { return PlatformError(QStringLiteral("O microfone foi desconectado durante o ditado.")); }
};
