#include "WhisperDevice.h"

#include <QRegularExpression>

namespace {

QString firstCapture(const QString& log, const QString& pattern)
{
    const QRegularExpressionMatch match = QRegularExpression(pattern, QRegularExpression::MultilineOption).match(log);
    return match.hasMatch() ? match.captured(1).trimmed() : QString();
}

}

QString WhisperDevice::fromLog(const QByteArray& errorOutput)
{
    const QString log = QString::fromUtf8(errorOutput);
    const QString gpu = firstCapture(log, QStringLiteral("whisper_backend_init_gpu: using (\\S+) backend"));
    const QString failedGpu = firstCapture(log, QStringLiteral("whisper_backend_init_gpu: failed to initialize (\\S+) backend"));
    const bool noGpu = log.contains(QLatin1String("whisper_backend_init_gpu: no GPU found"));
    if (!gpu.isEmpty() && failedGpu.isEmpty()) {
        // Vulkan names its devices by number; the driver's own name comes with the device list.
        const QString name = firstCapture(log, QStringLiteral("^ggml_vulkan: 0 = ([^|]+)\\|"));
        return name.isEmpty() ? gpu : gpu + QStringLiteral(" (") + name + QLatin1Char(')');
    }
    if (failedGpu.isEmpty() && !noGpu)
        return {};
    // libggml-cpu-haswell.so → haswell; a build with one CPU module names none.
    const QString variant = firstCapture(log, QStringLiteral("loaded CPU backend from \\S*libggml-cpu-([\\w.]+)\\.so"));
    QStringList notes;
    if (!variant.isEmpty())
        notes << variant;
    if (!failedGpu.isEmpty())
        notes << failedGpu + QStringLiteral(" failed to start");
    return notes.isEmpty() ? QStringLiteral("CPU") : QStringLiteral("CPU (") + notes.join(QStringLiteral("; ")) + QLatin1Char(')');
}
