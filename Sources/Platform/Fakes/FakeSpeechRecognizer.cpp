#include "FakeSpeechRecognizer.h"

#include <thread>

struct FakeSpeechRecognizer::Recognition {
    std::mutex mutex;
    bool requiresOnDevice = false;
    std::vector<qint16> samples;
    bool ended = false;
    bool cancelled = false;
};

class FakeSpeechRecognizer::FakeRequest final : public Request {
public:
    explicit FakeRequest(std::shared_ptr<Recognition> recognition)
        : m_recognition(std::move(recognition))
    {
    }

    void append(std::span<const qint16> samples) override
    {
        std::lock_guard lock(m_recognition->mutex);
        m_recognition->samples.insert(m_recognition->samples.end(), samples.begin(), samples.end());
    }

    void endAudio() override
    {
        std::lock_guard lock(m_recognition->mutex);
        m_recognition->ended = true;
    }

private:
    std::shared_ptr<Recognition> m_recognition;
};

class FakeSpeechRecognizer::FakeTask final : public Task {
public:
    explicit FakeTask(std::shared_ptr<Recognition> recognition)
        : m_recognition(std::move(recognition))
    {
    }

    void cancel() override
    {
        std::lock_guard lock(m_recognition->mutex);
        m_recognition->cancelled = true;
    }

private:
    std::shared_ptr<Recognition> m_recognition;
};

std::shared_ptr<SpeechRecognizer::Request> FakeSpeechRecognizer::makeRequest(bool requiresOnDeviceRecognition)
{
    auto recognition = std::make_shared<Recognition>();
    recognition->requiresOnDevice = requiresOnDeviceRecognition;
    std::lock_guard lock(m_mutex);
    m_current = recognition;
    return std::make_shared<FakeRequest>(recognition);
}

std::shared_ptr<SpeechRecognizer::Task> FakeSpeechRecognizer::startTask(std::shared_ptr<Request>, ResultHandler handler)
{
    std::lock_guard lock(m_mutex);
    m_handler = std::move(handler);
    ++m_taskCount;
    return std::make_shared<FakeTask>(m_current);
}

void FakeSpeechRecognizer::prepare()
{
    std::lock_guard lock(m_mutex);
    ++m_prepareCount;
}

bool FakeSpeechRecognizer::requestRequiredOnDevice() const
{
    std::lock_guard lock(m_mutex);
    return m_current && m_current->requiresOnDevice;
}

int FakeSpeechRecognizer::taskCount() const
{
    std::lock_guard lock(m_mutex);
    return m_taskCount;
}

int FakeSpeechRecognizer::prepareCount() const
{
    std::lock_guard lock(m_mutex);
    return m_prepareCount;
}

template <typename T> T FakeSpeechRecognizer::ofCurrent(T Recognition::*field, T none) const
{
    std::lock_guard lock(m_mutex);
    if (!m_current)
        return none;
    std::lock_guard recognitionLock(m_current->mutex);
    return (*m_current).*field;
}

std::vector<qint16> FakeSpeechRecognizer::receivedSamples() const
{
    return ofCurrent(&Recognition::samples, std::vector<qint16>{});
}

bool FakeSpeechRecognizer::audioEnded() const
{
    return ofCurrent(&Recognition::ended, false);
}

bool FakeSpeechRecognizer::taskCancelled() const
{
    return ofCurrent(&Recognition::cancelled, false);
}

void FakeSpeechRecognizer::sendPartial(const QString& text)
{
    send(Result{text, false}, nullptr);
}

void FakeSpeechRecognizer::sendFinal(const QString& text)
{
    send(Result{text, true}, nullptr);
}

void FakeSpeechRecognizer::sendError(const QString& description)
{
    send(std::nullopt, std::make_shared<PlatformError>(description));
}

void FakeSpeechRecognizer::send(std::optional<Result> result, std::shared_ptr<const Error> error)
{
    ResultHandler handler;
    {
        std::lock_guard lock(m_mutex);
        handler = m_handler;
    }
    if (handler)
        std::thread([&] { handler(result, error); }).join();
}
