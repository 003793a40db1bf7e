// The whole program, fetching its models from the address in VOXARIA_MODELS_URL and yt-dlp from
// the one in VOXARIA_YTDLP_URL instead of the public ones: end-to-end checks of the start-up offer
// and of the yt-dlp installation against a local server.
#include "Engines/ModelDownloader.h"
#include "Media/YtDlpManager.h"

const ModelDownloader::Addresses ModelDownloader::kPublishedAddresses{QUrl(qEnvironmentVariable("VOXARIA_MODELS_URL")),
    QUrl(qEnvironmentVariable("VOXARIA_MODELS_URL")), QUrl(qEnvironmentVariable("VOXARIA_MODELS_URL"))};

QUrl YtDlpManager::downloadURL()
{
    return QUrl(qEnvironmentVariable("VOXARIA_YTDLP_URL"));
}

#include "App/main.cpp"
