#include "FakeAudioInput.h"

#include "Shared/Error.h"

void FakeAudioInput::start(BufferHandler handler)
{
    ++startCount;
    if (!startFailure.isEmpty())
        throw PlatformError(startFailure);
    m_handler = std::move(handler);
    m_running = true;
}

void FakeAudioInput::stop()
{
    ++stopCount;
    m_running = false;
    m_handler = nullptr;
}

void FakeAudioInput::deliver(QByteArrayView interleavedFrames)
{
    if (m_running && m_handler)
        m_handler(interleavedFrames);
}
