#include "PulseAudioInput.h"

#include "PulseDefaultSource.h"
#include "Shared/Error.h"
#include "Shared/Logging.h"

#include <QAudioSource>
#include <QElapsedTimer>
#include <QMediaDevices>
#include <QTimer>

#include <algorithm>
#include <utility>

namespace {

AudioFormat::SampleType sampleTypeOf(QAudioFormat::SampleFormat format)
{
    switch (format) {
    case QAudioFormat::UInt8: return AudioFormat::SampleType::uint8;
    case QAudioFormat::Int16: return AudioFormat::SampleType::int16;
    case QAudioFormat::Int32: return AudioFormat::SampleType::int32;
    case QAudioFormat::Float: return AudioFormat::SampleType::float32;
    default: return AudioFormat::SampleType::unknown;
    }
}

QAudioDevice defaultInputDevice()
{
    const QList<QAudioDevice> inputs = QMediaDevices::audioInputs();
    if (inputs.isEmpty())
        return {};
    const QByteArray wanted = PulseDefaultSource::shared().name().toUtf8();
    for (const QAudioDevice& device : inputs) {
        if (device.id() == wanted)
            return device;
    }
    return inputs.first();
}

}

// Lives on the capture thread: owns the QAudioSource and reads it as data arrives. It also watches
// for the device going away, which Qt 6.4 does not report by itself: the device leaves the list of
// inputs (a sound server that rescues streams moves ours to another source instead of failing it),
// the stream stops with an error, or no audio arrives any more (the sound server went away).
class CaptureWorker : public QObject {
public:
    QString start(const QAudioDevice& device, const AudioInput::BufferHandler& handler, std::function<void()> onLost)
    {
        m_handler = handler;
        m_onLost = std::move(onLost);
        m_deviceId = device.id();
        const QAudioFormat format = device.preferredFormat();
        m_source = new QAudioSource(device, format, this);
        // About 20 ms per read keeps the tail short when the key is released.
        m_source->setBufferSize(qsizetype{format.bytesForDuration(20000)} * 4);
        m_io = m_source->start();
        if (!m_io || m_source->error() != QAudio::NoError) {
            QString reason = QStringLiteral("Não foi possível abrir o microfone (erro %1).").arg(int(m_source->error()));
            delete m_source;
            m_source = nullptr;
            return reason;
        }
        QObject::connect(m_io, &QIODevice::readyRead, this, [this] { deliverPending(); });
        m_lastAudio.start();
        m_watch = new QTimer(this);
        QObject::connect(m_watch, &QTimer::timeout, this, [this] { checkDevice(); });
        m_watch->start(kWatchIntervalMs);
        return {};
    }

    // Lets go of the handler in any case: what it holds may be waited for elsewhere.
    void stop()
    {
        if (m_source) {
            deliverPending();
            // Let go of before it is closed: Qt's PulseAudio backend runs an event loop while the
            // stream closes, and a stop posted meanwhile (the input being destroyed) or a last
            // readyRead must find nothing left to read or close.
            QAudioSource* source = std::exchange(m_source, nullptr);
            m_io = nullptr;
            delete std::exchange(m_watch, nullptr);
            source->stop();
            delete source;
        }
        m_handler = nullptr;
        m_onLost = nullptr;
    }

private:
    void deliverPending()
    {
        if (!m_io)
            return;
        const QByteArray data = m_io->readAll();
        if (data.isEmpty())
            return;
        m_lastAudio.restart();
        if (m_handler)
            m_handler(QByteArrayView(data));
    }

    void checkDevice()
    {
        if (!isListed())
            lost("the device left the list of inputs");
        else if (m_source->state() == QAudio::StoppedState && m_source->error() != QAudio::NoError)
            lost("the capture stream stopped with error " + QByteArray::number(int(m_source->error())));
        else if (m_lastAudio.hasExpired(kSilentStreamMs))
            lost("no audio for " + QByteArray::number(kSilentStreamMs) + " ms");
    }

    bool isListed() const
    {
        const QList<QAudioDevice> inputs = QMediaDevices::audioInputs();
        return std::any_of(inputs.begin(), inputs.end(), [this](const QAudioDevice& input) { return input.id() == m_deviceId; });
    }

    void lost(const QByteArray& why)
    {
        qCWarning(lcAudio) << "microphone lost:" << why.constData();
        if (std::function<void()> onLost = std::exchange(m_onLost, nullptr))
            onLost();
    }

    // A live capture stream delivers every 20 ms, silence included.
    static constexpr int kSilentStreamMs = 3000;
    static constexpr int kWatchIntervalMs = 250;

    QAudioSource* m_source = nullptr;
    QTimer* m_watch = nullptr;
    QElapsedTimer m_lastAudio;
    QIODevice* m_io = nullptr;
    QByteArray m_deviceId;
    AudioInput::BufferHandler m_handler;
    std::function<void()> m_onLost;
};

PulseAudioInput::PulseAudioInput()
    : m_mainThread(std::make_unique<QObject>())
    , m_worker(new CaptureWorker)
{
    m_thread.setObjectName(QStringLiteral("voxaria-capture"));
    m_worker->moveToThread(&m_thread);
}

// Whatever was posted before runs first, so the wait is at most for a capture stream to close.
PulseAudioInput::~PulseAudioInput()
{
    if (!m_thread.isRunning()) {
        delete m_worker;
        return;
    }
    QMetaObject::invokeMethod(
        m_worker,
        [this] {
            m_worker->stop();
            m_thread.quit();
        },
        Qt::QueuedConnection);
    m_thread.wait();
    delete m_worker;
}

std::optional<AudioFormat> PulseAudioInput::format()
{
    if (!m_deviceLooked) {
        m_device = defaultInputDevice();
        m_deviceLooked = true;
    }
    if (m_device.isNull()) {
        qCInfo(lcAudio) << "no audio input device";
        return std::nullopt;
    }
    const QAudioFormat preferred = m_device.preferredFormat();
    AudioFormat format{preferred.sampleRate(), preferred.channelCount(), sampleTypeOf(preferred.sampleFormat())};
    qCDebug(lcAudio) << "microphone" << m_device.description() << format.sampleRate << "Hz" << format.channelCount << "ch";
    return format;
}

void PulseAudioInput::start(BufferHandler handler, StartedHandler onStarted, FailureHandler onFailure)
{
    if (m_running)
        return;
    if (!format())
        throw PlatformError(QStringLiteral("Nenhum microfone disponível."));
    // From the first recording on, for as long as this input lives.
    if (!m_thread.isRunning())
        m_thread.start();
    m_running = true;
    m_onStarted = std::move(onStarted);
    m_onFailure = std::move(onFailure);
    const quint64 capture = ++m_capture;
    // Opening the stream talks to the sound server: that happens on the capture thread.
    QMetaObject::invokeMethod(
        m_worker,
        [this, capture, device = m_device, handler = std::move(handler)] {
            const QString failure = m_worker->start(device, handler, [this, capture] { reportLoss(capture); });
            postToMainThread([this, capture, failure] { answerStart(capture, failure); });
        },
        Qt::QueuedConnection);
}

void PulseAudioInput::stop(DrainedHandler onDrained)
{
    if (!m_running)
        return;
    m_running = false;
    m_onStarted = nullptr;
    m_onFailure = nullptr;
    QMetaObject::invokeMethod(
        m_worker,
        [this, onDrained = std::move(onDrained)] {
            m_worker->stop();
            if (onDrained)
                postToMainThread(onDrained);
        },
        Qt::QueuedConnection);
}

bool PulseAudioInput::isRunning() const
{
    return m_running;
}

void PulseAudioInput::answerStart(quint64 capture, const QString& failure)
{
    if (capture != m_capture || !m_running)
        return;
    if (!failure.isEmpty()) {
        fail(PlatformError(failure));
        return;
    }
    if (StartedHandler onStarted = std::exchange(m_onStarted, nullptr))
        onStarted();
}

// Called on the capture thread; the failure handler runs on the main thread, unless that capture was
// stopped meanwhile.
void PulseAudioInput::reportLoss(quint64 capture)
{
    postToMainThread([this, capture] {
        if (capture == m_capture && m_running)
            fail(disconnected());
    });
}

void PulseAudioInput::fail(const Error& error)
{
    FailureHandler onFailure = std::exchange(m_onFailure, nullptr);
    stop({});
    if (onFailure)
        onFailure(error);
}

// From the capture thread. This input, and so m_mainThread, outlives that thread; a call still
// queued when this input goes is dropped with m_mainThread.
void PulseAudioInput::postToMainThread(std::function<void()> call) const
{
    QMetaObject::invokeMethod(m_mainThread.get(), std::move(call), Qt::QueuedConnection);
}
