#include "LiveSpeechEngine.h"

#include "NemotronStream.h"
#include "Shared/LiveSpeechModel.h"
#include "Shared/Logging.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

namespace {

// The capture thread wakes the worker once a tenth of a second of audio is waiting: the model
// decodes in chunks of several tenths anyway, and waking for each 20 ms buffer would only cost.
constexpr std::size_t kWakeSamples = SpeechRecognizer::sampleRate / 10;
// At most a second is decoded per step, so a backlog (the audio heard while the model loaded)
// still shows its text as it is decoded and a cancel is noticed within a step.
constexpr std::size_t kStepSamples = SpeechRecognizer::sampleRate;

std::vector<float> toFloat(const std::vector<qint16>& samples)
{
    std::vector<float> out(samples.size());
    for (std::size_t i = 0; i < samples.size(); ++i)
        out[i] = float(samples[i]) / 32768.0f;
    return out;
}

}

// What the worker and the threads that feed or cancel recognitions share, under one lock.
struct LiveSpeechEngine::Mailbox {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::shared_ptr<Recognition>> queue; // started recognitions, oldest first
    bool preloadWanted = false;
    bool loading = false;
    bool loaded = false;
    bool stopping = false;
};

// One dictation: its audio as it arrives (the request) and its cancellation (the task).
class LiveSpeechEngine::Recognition final : public SpeechRecognizer::Request, public SpeechRecognizer::Task {
public:
    Recognition(std::shared_ptr<Mailbox> mailbox, const QString& locale)
        : language(locale.toUtf8())
        , m_mailbox(std::move(mailbox))
    {
    }

    void append(std::span<const qint16> samples) override
    {
        std::lock_guard lock(m_mailbox->mutex);
        if (ended || cancelled)
            return;
        pending.insert(pending.end(), samples.begin(), samples.end());
        if (pending.size() >= kWakeSamples)
            m_mailbox->changed.notify_all();
    }

    void endAudio() override
    {
        std::lock_guard lock(m_mailbox->mutex);
        ended = true;
        m_mailbox->changed.notify_all();
    }

    void cancel() override
    {
        std::lock_guard lock(m_mailbox->mutex);
        cancelled = true;
        m_mailbox->changed.notify_all();
    }

    // Under the mailbox's lock: whether the worker has something to do for it.
    bool hasWork() const { return cancelled || ended || pending.size() >= kWakeSamples; }

    void report(SpeechRecognizer::Result result)
    {
        if (!cancelled)
            handler(std::move(result), nullptr);
    }

    void fail(const QString& message)
    {
        if (cancelled)
            return;
        qCWarning(lcSpeech) << message;
        handler(std::nullopt, std::make_shared<PlatformError>(message));
    }

    const QByteArray language;
    SpeechRecognizer::ResultHandler handler; // set before it is queued
    // Under the mailbox's lock.
    std::vector<qint16> pending;
    bool ended = false;
    // Also read by the library between decoding steps, without the lock.
    std::atomic_bool cancelled = false;
    // The worker's own.
    bool begun = false;
    QString reported;

private:
    std::shared_ptr<Mailbox> m_mailbox;
};

// Runs on the worker thread and owns the model there.
class LiveSpeechEngine::Worker {
public:
    Worker(std::shared_ptr<Mailbox> mailbox, QString modelPath, std::chrono::milliseconds idleRelease)
        : m_mailbox(std::move(mailbox))
        , m_modelPath(std::move(modelPath))
        , m_idleRelease(idleRelease)
    {
    }

    void run()
    {
        std::unique_lock lock(m_mailbox->mutex);
        while (!m_mailbox->stopping) {
            if (!m_stream.isLoaded()) {
                m_mailbox->changed.wait(
                    lock, [this] { return m_mailbox->stopping || m_mailbox->preloadWanted || !m_mailbox->queue.empty(); });
                if (!m_mailbox->stopping)
                    load(lock);
                continue;
            }
            // Without a dictation nothing wakes the worker until the model is due for release.
            const auto idleSince = std::chrono::steady_clock::now();
            if (!m_mailbox->changed.wait_until(lock, idleSince + m_idleRelease, [this] { return m_mailbox->stopping || frontHasWork(); })) {
                if (m_mailbox->queue.empty())
                    release(lock);
                continue;
            }
            if (!m_mailbox->stopping)
                step(lock);
        }
        m_mailbox->queue.clear();
    }

private:
    bool frontHasWork() const { return !m_mailbox->queue.empty() && m_mailbox->queue.front()->hasWork(); }

    void load(std::unique_lock<std::mutex>& lock)
    {
        m_mailbox->loading = true;
        m_mailbox->preloadWanted = false;
        lock.unlock();
        const std::optional<QString> error = m_stream.load(m_modelPath);
        lock.lock();
        m_mailbox->loading = false;
        m_mailbox->loaded = !error;
        if (!error)
            return;
        // Every dictation waiting for this model answers with the error; the next one tries again
        // (the model may have been downloaded again meanwhile).
        auto waiting = std::exchange(m_mailbox->queue, {});
        lock.unlock();
        for (const auto& recognition : waiting)
            recognition->fail(*error);
        lock.lock();
    }

    void release(std::unique_lock<std::mutex>& lock)
    {
        lock.unlock();
        m_stream.release();
        lock.lock();
        m_mailbox->loaded = false;
    }

    // Decodes the front recognition's waiting audio, at most a step of it, with the lock released.
    void step(std::unique_lock<std::mutex>& lock)
    {
        const std::shared_ptr<Recognition> recognition = m_mailbox->queue.front();
        const std::size_t count = std::min(recognition->pending.size(), kStepSamples);
        std::vector<qint16> samples(recognition->pending.begin(), recognition->pending.begin() + qsizetype(count));
        recognition->pending.erase(recognition->pending.begin(), recognition->pending.begin() + qsizetype(count));
        const bool last = recognition->ended && recognition->pending.empty();
        lock.unlock();
        const bool done = decode(*recognition, samples, last);
        lock.lock();
        if (done)
            m_mailbox->queue.pop_front();
    }

    // True once the recognition is over: answered, failed or cancelled.
    bool decode(Recognition& recognition, const std::vector<qint16>& samples, bool last)
    {
        if (recognition.cancelled) {
            m_stream.abandon();
            return true;
        }
        if (!recognition.begun) {
            if (const auto error = m_stream.begin(recognition.language.constData(), &recognition.cancelled))
                return failed(recognition, *error);
            recognition.begun = true;
        }
        if (!samples.empty()) {
            if (const auto error = m_stream.feed(toFloat(samples)))
                return failed(recognition, *error);
        }
        if (last && !recognition.cancelled) {
            if (const auto error = m_stream.finalize())
                return failed(recognition, *error);
            recognition.report({m_stream.finalText(), true});
            m_stream.abandon();
            return true;
        }
        const QString text = m_stream.text();
        if (!text.isEmpty() && text != recognition.reported) {
            recognition.reported = text;
            recognition.report({text, false});
        }
        return recognition.cancelled;
    }

    bool failed(Recognition& recognition, const QString& message)
    {
        m_stream.abandon();
        recognition.fail(message);
        return true;
    }

    std::shared_ptr<Mailbox> m_mailbox;
    const QString m_modelPath;
    const std::chrono::milliseconds m_idleRelease;
    NemotronStream m_stream;
};

LiveSpeechEngine::LiveSpeechEngine(QString modelPath, std::chrono::milliseconds idleRelease)
    : m_modelPath(std::move(modelPath))
    , m_idleRelease(idleRelease)
    , m_mailbox(std::make_shared<Mailbox>())
    , m_thread([worker = std::make_shared<Worker>(m_mailbox, m_modelPath, m_idleRelease)] { worker->run(); })
{
}

LiveSpeechEngine::~LiveSpeechEngine()
{
    bool loading = false;
    {
        std::lock_guard lock(m_mailbox->mutex);
        m_mailbox->stopping = true;
        for (const auto& recognition : m_mailbox->queue)
            recognition->cancelled = true;
        loading = m_mailbox->loading;
        m_mailbox->changed.notify_all();
    }
    // The worker checks `stopping` under the lock before it starts a load, so when it was not
    // loading now it never will; a load under way cannot be interrupted and is not waited for.
    if (loading)
        m_thread.detach();
    else
        m_thread.join();
}

std::shared_ptr<LiveSpeechEngine> LiveSpeechEngine::forInstalledModel()
{
    static std::mutex mutex;
    static std::shared_ptr<LiveSpeechEngine> engine;
    const QString path = LiveSpeechModel::installedPath();
    std::lock_guard lock(mutex);
    if (!engine || engine->modelPath() != path)
        engine = std::make_shared<LiveSpeechEngine>(path);
    return engine;
}

void LiveSpeechEngine::preload()
{
    std::lock_guard lock(m_mailbox->mutex);
    if (m_mailbox->loaded || m_mailbox->loading)
        return;
    m_mailbox->preloadWanted = true;
    m_mailbox->changed.notify_all();
}

bool LiveSpeechEngine::isLoaded() const
{
    std::lock_guard lock(m_mailbox->mutex);
    return m_mailbox->loaded;
}

std::shared_ptr<SpeechRecognizer::Request> LiveSpeechEngine::makeRequest(const QString& language)
{
    return std::make_shared<Recognition>(m_mailbox, language);
}

std::shared_ptr<SpeechRecognizer::Task> LiveSpeechEngine::startTask(
    std::shared_ptr<SpeechRecognizer::Request> request, SpeechRecognizer::ResultHandler handler)
{
    // Requests only ever come from makeRequest() above.
    auto recognition = std::static_pointer_cast<Recognition>(std::move(request));
    std::lock_guard lock(m_mailbox->mutex);
    recognition->handler = std::move(handler);
    m_mailbox->queue.push_back(recognition);
    m_mailbox->changed.notify_all();
    return recognition;
}
