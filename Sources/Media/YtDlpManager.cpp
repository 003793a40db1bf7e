#include "YtDlpManager.h"

#include "Engines/WhisperTranscriber.h"
#include "Shared/AppPaths.h"

#include <QCoreApplication>

QStringList YtDlpManager::candidates()
{
    return {
        installedPath(),
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

QString YtDlpManager::installedPath()
{
    return AppPaths::dataFolder() + QStringLiteral("/bin/yt-dlp");
}

YtDlpInstallation* YtDlpManager::install(
    YtDlpInstallation::Progress progress, YtDlpInstallation::Completion completion, QObject* context, const QUrl& source)
{
    // Without a context the application holds it, so quitting mid-download still removes the
    // temporary file.
    return new YtDlpInstallation(
        source, installedPath(), std::move(progress), std::move(completion), context ? context : QCoreApplication::instance());
}
