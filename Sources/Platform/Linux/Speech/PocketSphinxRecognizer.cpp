#include "PocketSphinxRecognizer.h"

#include "PocketSphinxDecoder.h"
#include "Shared/Logging.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

std::shared_ptr<SpeechRecognizer> SpeechRecognizer::make(const QString& localeIdentifier)
{
    auto model = PocketSphinxModel::find(localeIdentifier);
    if (!model)
        return nullptr;
    return std::make_shared<PocketSphinxRecognizer>(std::move(*model));
}

namespace {

// Asking PocketSphinx for its hypothesis after every 20 ms capture buffer would cost more than the
// decoding itself; a tenth of a second keeps the partial text lively enough.
constexpr std::size_t kSamplesPerStep = SpeechRecognizer::sampleRate / 10;

// The audio between the capture thread and the decoding worker.
class SampleQueue final : public SpeechRecognizer::Request {
public:
    struct Chunk {
        std::vector<qint16> samples;
        bool isLast = false;
    };

    void append(std::span<const qint16> samples) override
    {
        std::lock_guard lock(m_mutex);
        if (m_ended || m_abandoned)
            return;
        m_pending.insert(m_pending.end(), samples.begin(), samples.end());
        if (m_pending.size() >= kSamplesPerStep)
            m_ready.notify_one();
    }

    void endAudio() override
    {
        std::lock_guard lock(m_mutex);
        m_ended = true;
        m_ready.notify_one();
    }

    void abandon()
    {
        std::lock_guard lock(m_mutex);
        m_abandoned = true;
        m_ready.notify_one();
    }

    bool isAbandoned() const
    {
        std::lock_guard lock(m_mutex);
        return m_abandoned;
    }

    // Waits for a step's worth of audio or the end; nothing once the recognition was abandoned.
    std::optional<Chunk> next()
    {
        std::unique_lock lock(m_mutex);
        m_ready.wait(lock, [this] { return m_abandoned || m_ended || m_pending.size() >= kSamplesPerStep; });
        if (m_abandoned)
            return std::nullopt;
        return Chunk{std::exchange(m_pending, {}), m_ended};
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_ready;
    std::vector<qint16> m_pending;
    bool m_ended = false;
    bool m_abandoned = false;
};

class DecodingTask final : public SpeechRecognizer::Task {
public:
    explicit DecodingTask(std::shared_ptr<SampleQueue> queue)
        : m_queue(std::move(queue))
    {
    }
    void cancel() override { m_queue->abandon(); }

private:
    std::shared_ptr<SampleQueue> m_queue;
};

// Runs one recognition on its worker thread, from loading the model to the final text.
class Decoding {
public:
    Decoding(PocketSphinxModel model, std::shared_ptr<SampleQueue> queue, SpeechRecognizer::ResultHandler handler)
        : m_model(std::move(model))
        , m_queue(std::move(queue))
        , m_handler(std::move(handler))
    {
    }

    void run()
    {
        auto decoder = PocketSphinxDecoder::acquire(m_model, [this] { return m_queue->isAbandoned(); });
        if (!decoder) {
            fail(QStringLiteral("Não foi possível carregar o modelo do PocketSphinx em %1.").arg(m_model.acousticModel));
            return;
        }
        if (!decoder->startUtterance()) {
            fail(QStringLiteral("O PocketSphinx não conseguiu iniciar o reconhecimento."));
            return;
        }
        if (decodeUntilTheEnd(*decoder))
            PocketSphinxDecoder::keepForNextDictation(std::move(decoder));
    }

private:
    // False when the decoder failed and should not be used again.
    bool decodeUntilTheEnd(PocketSphinxDecoder& decoder)
    {
        QString reported;
        while (auto chunk = m_queue->next()) {
            if (!decoder.process(chunk->samples)) {
                fail(QStringLiteral("O PocketSphinx falhou ao decodificar o áudio."));
                return false;
            }
            if (chunk->isLast) {
                decoder.endUtterance();
                report(SpeechRecognizer::Result{decoder.hypothesis(), true});
                return true;
            }
            const QString text = decoder.hypothesis();
            if (!text.isEmpty() && text != reported) {
                reported = text;
                report(SpeechRecognizer::Result{text, false});
            }
        }
        decoder.endUtterance();
        return true;
    }

    void report(SpeechRecognizer::Result result)
    {
        if (!m_queue->isAbandoned())
            m_handler(std::move(result), nullptr);
    }

    // Once abandoned, a failure (a model check stopped half-way included) is nobody's concern.
    void fail(const QString& message)
    {
        if (m_queue->isAbandoned())
            return;
        qCWarning(lcSpeech) << message;
        m_handler(std::nullopt, std::make_shared<PlatformError>(message));
    }

    PocketSphinxModel m_model;
    std::shared_ptr<SampleQueue> m_queue;
    SpeechRecognizer::ResultHandler m_handler;
};

}

// One recognition's thread. Destroying it abandons the recognition, which the worker notices between
// two decoding steps or during the model check, and waits for the thread.
class PocketSphinxRecognizer::Worker {
public:
    Worker(const PocketSphinxModel& model, std::shared_ptr<SampleQueue> queue, ResultHandler handler)
        : m_queue(queue)
        , m_thread([this, decoding = Decoding(model, std::move(queue), std::move(handler))]() mutable {
            decoding.run();
            m_finished = true;
        })
    {
    }

    ~Worker()
    {
        m_queue->abandon();
        m_thread.join();
    }

    bool isFinished() const { return m_finished; }

private:
    std::shared_ptr<SampleQueue> m_queue;
    std::atomic_bool m_finished = false;
    std::thread m_thread;
};

PocketSphinxRecognizer::PocketSphinxRecognizer(PocketSphinxModel model)
    : m_model(std::move(model))
{
}

PocketSphinxRecognizer::~PocketSphinxRecognizer() = default;

std::shared_ptr<SpeechRecognizer::Request> PocketSphinxRecognizer::makeRequest(bool requiresOnDeviceRecognition)
{
    // Nothing to switch: every PocketSphinx recognition already stays on the device.
    Q_UNUSED(requiresOnDeviceRecognition);
    return std::make_shared<SampleQueue>();
}

std::shared_ptr<SpeechRecognizer::Task> PocketSphinxRecognizer::startTask(std::shared_ptr<Request> request, ResultHandler handler)
{
    // Requests only ever come from makeRequest() above.
    auto queue = std::static_pointer_cast<SampleQueue>(std::move(request));
    // Cancelling only abandons the queue and never waits; the thread is joined once it has ended, at
    // the next recognition or with the recogniser.
    std::erase_if(m_workers, [](const std::unique_ptr<Worker>& worker) { return worker->isFinished(); });
    m_workers.push_back(std::make_unique<Worker>(m_model, queue, std::move(handler)));
    return std::make_shared<DecodingTask>(std::move(queue));
}
