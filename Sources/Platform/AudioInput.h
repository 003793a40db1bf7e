#pragma once

#include "AudioFormat.h"
#include "Shared/Error.h"

#include <QByteArrayView>

#include <functional>
#include <memory>
#include <optional>

// The microphone. Buffers are delivered on a capture thread, never on the main thread, in the
// device's own format.
class AudioInput {
public:
    using BufferHandler = std::function<void(QByteArrayView interleavedFrames)>;
    // The microphone went away while capturing (unplugged, sound server restarted). Called at most
    // once per start, on the thread that called start, and never after stop() or destruction.
    using FailureHandler = std::function<void(const Error& error)>;

    virtual ~AudioInput() = default;

    // The format the microphone delivers, or nothing when there is no usable input device.
    virtual std::optional<AudioFormat> format() = 0;
    // Returns once audio is being captured; throws PlatformError when capture cannot start.
    virtual void start(BufferHandler handler, FailureHandler onFailure) = 0;
    // Returns once capture has stopped; no handler call is running or will run afterwards.
    virtual void stop() = 0;
    virtual bool isRunning() const = 0;

    // What the failure handler receives when the device went away.
    static PlatformError disconnected() { return PlatformError(QStringLiteral("O microfone foi desconectado durante o ditado.")); }
};
