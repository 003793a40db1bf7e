#include "YtDlpManager.h"

#include "Engines/WhisperTranscriber.h"
#include "Shared/AppPaths.h"

QStringList YtDlpManager::candidates()
{
    return {
        AppPaths::dataFolder() + QStringLiteral("/bin/yt-dlp"),
#ifdef Q_OS_MACOS
        QStringLiteral("/opt/homebrew/bin/yt-dlp"),
        QStringLiteral("/usr/local/bin/yt-dlp"),
#else
        QStringLiteral("/usr/local/bin/yt-dlp"),
        QStringLiteral("/usr/bin/yt-dlp"),
#endif
    };
}

std::optional<QString> YtDlpManager::binaryURL()
{
    return WhisperTranscriber::firstExecutable(candidates());
}

bool YtDlpManager::isAvailable()
{
    return binaryURL().has_value();
}
