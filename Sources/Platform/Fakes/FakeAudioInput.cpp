#include "FakeAudioInput.h"

#include "Shared/Error.h"

void FakeAudioInput::start(BufferHandler handler, FailureHandler onFailure)
{
    ++startCount;
    if (!startFailure.isEmpty())
        throw PlatformError(startFailure);
    m_handler = std::move(handler);
    m_onFailure = std::move(onFailure);
    m_running = true;
}

void FakeAudioInput::stop()
{
    ++stopCount;
    m_running = false;
    m_handler = nullptr;
    m_onFailure = nullptr;
}

void FakeAudioInput::deliver(QByteArrayView interleavedFrames)
{
    if (m_running && m_handler)
        m_handler(interleavedFrames);
}

void FakeAudioInput::disconnect()
{
    if (FailureHandler onFailure = std::exchange(m_onFailure, nullptr); m_running && onFailure)
        onFailure(disconnected());
}
