#include "PulseAudioInput.h"

#include "Shared/Error.h"
#include "Shared/Logging.h"
#include "PulseDefaultSource.h"

#include <QAudioSource>
#include <QMediaDevices>

std::unique_ptr<AudioInput> AudioInput::makeDefault()
{
    return std::make_unique<PulseAudioInput>();
}

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
    const QByteArray wanted = pulseDefaultSourceName().toUtf8();
    for (const QAudioDevice& device : inputs) {
        if (device.id() == wanted)
            return device;
    }
    return inputs.first();
}

}

// Lives on the capture thread: owns the QAudioSource and reads it as data arrives.
class CaptureWorker : public QObject {
public:
    QString start(const QAudioDevice& device, const AudioInput::BufferHandler& handler)
    {
        m_handler = handler;
        const QAudioFormat format = device.preferredFormat();
        m_source = new QAudioSource(device, format, this);
        // About 20 ms per read keeps the tail short when the key is released.
        m_source->setBufferSize(format.bytesForDuration(20000) * 4);
        m_io = m_source->start();
        if (!m_io || m_source->error() != QAudio::NoError) {
            const QString reason = QStringLiteral("Não foi possível abrir o microfone (erro %1).").arg(int(m_source->error()));
            delete m_source;
            m_source = nullptr;
            return reason;
        }
        QObject::connect(m_io, &QIODevice::readyRead, this, [this] { deliverPending(); });
        return {};
    }

    void stop()
    {
        if (!m_source)
            return;
        deliverPending();
        m_source->stop();
        delete m_source;
        m_source = nullptr;
        m_io = nullptr;
        m_handler = nullptr;
    }

private:
    void deliverPending()
    {
        if (!m_io)
            return;
        const QByteArray data = m_io->readAll();
        if (!data.isEmpty() && m_handler)
            m_handler(QByteArrayView(data));
    }

    QAudioSource* m_source = nullptr;
    QIODevice* m_io = nullptr;
    AudioInput::BufferHandler m_handler;
};

PulseAudioInput::PulseAudioInput()
{
    m_thread.setObjectName(QStringLiteral("voxaria-capture"));
}

PulseAudioInput::~PulseAudioInput()
{
    stop();
    m_thread.quit();
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

void PulseAudioInput::start(BufferHandler handler)
{
    if (m_running)
        return;
    if (!format())
        throw PlatformError(QStringLiteral("Nenhum microfone disponível."));
    if (!m_worker) {
        m_worker = new CaptureWorker;
        m_worker->moveToThread(&m_thread);
    }
    m_thread.start();
    QString failure;
    QMetaObject::invokeMethod(m_worker, [&] { failure = m_worker->start(m_device, handler); },
                              Qt::BlockingQueuedConnection);
    if (!failure.isEmpty()) {
        m_thread.quit();
        m_thread.wait();
        throw PlatformError(failure);
    }
    m_running = true;
}

void PulseAudioInput::stop()
{
    if (!m_running)
        return;
    QMetaObject::invokeMethod(m_worker, [this] { m_worker->stop(); }, Qt::BlockingQueuedConnection);
    m_thread.quit();
    m_thread.wait();
    m_running = false;
}

bool PulseAudioInput::isRunning() const
{
    return m_running;
}
