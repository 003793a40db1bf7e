#include "FakeAudioInput.h"

#include "Shared/Error.h"

void FakeAudioInput::start(BufferHandler handler, StartedHandler onStarted, FailureHandler onFailure)
{
    ++startCount;
    m_handler = std::move(handler);
    m_onFailure = std::move(onFailure);
    m_running = true;
    post([this, onStarted = std::move(onStarted)] {
        if (!m_running)
            return;
        if (!startFailure.isEmpty()) {
            FailureHandler failed = std::exchange(m_onFailure, nullptr);
            stop({});
            if (failed)
                failed(PlatformError(startFailure));
        } else if (onStarted) {
            onStarted();
        }
    });
}

void FakeAudioInput::stop(DrainedHandler onDrained)
{
    if (!m_running)
        return;
    ++stopCount;
    m_running = false;
    m_handler = nullptr;
    m_onFailure = nullptr;
    if (onDrained)
        post(std::move(onDrained));
}

void FakeAudioInput::deliver(QByteArrayView interleavedFrames)
{
    if (m_running && m_handler)
        m_handler(interleavedFrames);
}

void FakeAudioInput::disconnect()
{
    if (FailureHandler onFailure = std::exchange(m_onFailure, nullptr); m_running && onFailure) {
        stop({});
        onFailure(disconnected());
    }
}

void FakeAudioInput::post(std::function<void()> call)
{
    QMetaObject::invokeMethod(&m_context, std::move(call), Qt::QueuedConnection);
}
