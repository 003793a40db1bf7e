#pragma once

#include "Platform/SpeechRecognizer.h"

#include <mutex>
#include <vector>

// A scriptable recogniser: tests choose whether it is available, see the audio and the calls it
// received, and send partial texts, final texts and errors as the recogniser's own thread would.
class FakeSpeechRecognizer final : public SpeechRecognizer {
public:
    bool available = true;
    bool onDeviceSupported = true;

    bool isAvailable() const override { return available; }
    bool supportsOnDeviceRecognition() const override { return onDeviceSupported; }
    std::shared_ptr<Request> makeRequest(bool requiresOnDeviceRecognition) override;
    std::shared_ptr<Task> startTask(std::shared_ptr<Request> request, ResultHandler handler) override;
    void prepare() override;

    // What the engine did with the current recognition.
    bool requestRequiredOnDevice() const;
    int taskCount() const;
    int prepareCount() const;
    std::vector<qint16> receivedSamples() const;
    bool audioEnded() const;
    bool taskCancelled() const;

    // Each is delivered from a thread of its own, then returns.
    void sendPartial(const QString& text);
    void sendFinal(const QString& text);
    void sendError(const QString& description);

private:
    struct Recognition;
    class FakeRequest;
    class FakeTask;

    void send(std::optional<Result> result, std::shared_ptr<const Error> error);
    // One field of the latest recognition, read under both locks; `none` before any recognition.
    template <typename T> T ofCurrent(T Recognition::*field, T none) const;

    mutable std::mutex m_mutex;
    std::shared_ptr<Recognition> m_current;
    ResultHandler m_handler;
    int m_taskCount = 0;
    int m_prepareCount = 0;
};
