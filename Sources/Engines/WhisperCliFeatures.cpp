#include "WhisperCliFeatures.h"

#include "Shared/AppPaths.h"
#include "Shared/Logging.h"

#include <QFileInfo>
#include <QHash>
#include <QProcess>

#include <mutex>

namespace {

constexpr int kHelpTimeoutMs = 10000;
// Silero's speech segments are cut tight; the padding keeps the first and last syllables of each.
constexpr int kSpeechPaddingMs = 250;

bool helpListsVad(const QString& binary)
{
    QProcess help;
    help.setProcessChannelMode(QProcess::MergedChannels);
    help.start(binary, {QStringLiteral("--help")}, QIODevice::ReadOnly);
    if (!help.waitForFinished(kHelpTimeoutMs)) {
        help.kill();
        help.waitForFinished();
        return false;
    }
    return help.readAll().contains("--vad-model");
}

}

bool WhisperCliFeatures::supportsVad(const QString& binary)
{
    static std::mutex mutex;
    static QHash<QString, bool> known;
    const std::lock_guard lock(mutex);
    const auto found = known.constFind(binary);
    if (found != known.cend())
        return *found;
    const bool supported = helpListsVad(binary);
    qCInfo(lcWhisper) << binary << (supported ? "supports" : "does not support") << "voice activity detection";
    known.insert(binary, supported);
    return supported;
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
    return {QStringLiteral("--vad"), QStringLiteral("-vm"), model, QStringLiteral("--vad-speech-pad-ms"), QString::number(kSpeechPaddingMs)};
}
