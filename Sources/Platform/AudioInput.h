#pragma once

#include "AudioFormat.h"

#include <QByteArrayView>

#include <functional>
#include <memory>
#include <optional>

// The microphone. Buffers are delivered on a capture thread, never on the main thread, in the
// device's own format.
class AudioInput {
public:
    using BufferHandler = std::function<void(QByteArrayView interleavedFrames)>;

    virtual ~AudioInput() = default;

    // The format the microphone delivers, or nothing when there is no usable input device.
    virtual std::optional<AudioFormat> format() = 0;
    // Returns once audio is being captured; throws PlatformError when capture cannot start.
    virtual void start(BufferHandler handler) = 0;
    // Returns once capture has stopped; no handler call is running or will run afterwards.
    virtual void stop() = 0;
    virtual bool isRunning() const = 0;

    // The real microphone of this platform.
    static std::unique_ptr<AudioInput> makeDefault();
};
