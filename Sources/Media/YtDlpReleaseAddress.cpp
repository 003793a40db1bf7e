#include "YtDlpManager.h"

// Kept in a file of its own so that a test build of the whole program can link its own address
// instead; the program itself has only this one, and nothing at run time can change it.
QUrl YtDlpManager::downloadURL()
{
    // The stand-alone builds carry their own Python; elsewhere the zip application needs the
    // system's python3.
#if defined(Q_PROCESSOR_X86_64)
    static const QString asset = QStringLiteral("yt-dlp_linux");
#elif defined(Q_PROCESSOR_ARM_64)
    static const QString asset = QStringLiteral("yt-dlp_linux_aarch64");
#else
    static const QString asset = QStringLiteral("yt-dlp");
#endif
    static const QUrl address(QStringLiteral("https://github.com/yt-dlp/yt-dlp/releases/latest/download/") + asset);
    return address;
}
