#include "WhisperCliFeatures.h"

#include "Shared/AppPaths.h"
#include "Shared/Logging.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFileInfo>
#include <QHash>
#include <QProcess>
#include <QTimer>

#include <mutex>

namespace {

constexpr int kHelpTimeoutMs = 10000;
// Silero's speech segments are cut tight; the padding keeps the first and last syllables of each.
constexpr int kSpeechPaddingMs = 250;

bool listsVad(const QByteArray& help)
{
    return help.contains("--vad");
}

// A program replaced in place (an update) is asked again.
QString programKey(const QString& binary)
{
    return binary + QLatin1Char('@') + QString::number(QFileInfo(binary).lastModified().toMSecsSinceEpoch());
}

std::mutex& cacheMutex()
{
    static std::mutex mutex;
    return mutex;
}

QHash<QString, bool>& cache()
{
    static QHash<QString, bool> known;
    return known;
}

void remember(const QString& binary, bool supported)
{
    qCInfo(lcWhisper) << binary << (supported ? "supports" : "does not support") << "voice activity detection and standard input";
    const std::lock_guard lock(cacheMutex());
    cache().insert(programKey(binary), supported);
}

}

std::optional<bool> WhisperCliFeatures::knownVadSupport(const QString& binary)
{
    const std::lock_guard lock(cacheMutex());
    const auto found = cache().constFind(programKey(binary));
    return found != cache().cend() ? std::optional<bool>(*found) : std::nullopt;
}

bool WhisperCliFeatures::supportsVad(const QString& binary)
{
    if (const std::optional<bool> known = knownVadSupport(binary))
        return *known;
    QProcess help;
    help.setProcessChannelMode(QProcess::MergedChannels);
    help.start(binary, {QStringLiteral("--help")}, QIODevice::ReadOnly);
    if (!help.waitForFinished(kHelpTimeoutMs)) {
        help.kill();
        help.waitForFinished();
        return false;
    }
    const bool supported = listsVad(help.readAll());
    remember(binary, supported);
    return supported;
}

void WhisperCliFeatures::probeVadSupport(const QString& binary, std::function<void(bool supported)> answer)
{
    // The application owns the probe, so quitting ends it; its answer serves every later caller.
    auto* help = new QProcess(QCoreApplication::instance());
    help->setProcessChannelMode(QProcess::MergedChannels);
    QObject::connect(help, &QProcess::finished, help, [help, binary, answer = std::move(answer)](int, QProcess::ExitStatus status) {
        help->deleteLater();
        if (status != QProcess::NormalExit)
            return;
        const bool supported = listsVad(help->readAll());
        remember(binary, supported);
        answer(supported);
    });
    QObject::connect(help, &QProcess::errorOccurred, help, [help](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            help->deleteLater();
    });
    QTimer::singleShot(kHelpTimeoutMs, help, &QProcess::kill);
    help->start(binary, {QStringLiteral("--help")}, QIODevice::ReadOnly);
}

QString WhisperCliFeatures::vadModelPath()
{
    return AppPaths::modelsFolder() + QStringLiteral("/ggml-silero-v6.2.0.bin");
}

QStringList WhisperCliFeatures::vadArguments(const QString& binary)
{
    const QString model = vadModelPath();
    if (!QFileInfo(model).isFile() || !supportsVad(binary))
        return {};
    return {
        QStringLiteral("--vad"), QStringLiteral("-vm"), model, QStringLiteral("--vad-speech-pad-ms"), QString::number(kSpeechPaddingMs)};
}
