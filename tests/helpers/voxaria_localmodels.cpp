// The whole program, fetching its models from the address in VOXARIA_MODELS_URL instead of the
// public repository: end-to-end checks of the start-up offer against a local server.
#include "Engines/ModelDownloader.h"

const QUrl ModelDownloader::kDefaultBaseAddress(qEnvironmentVariable("VOXARIA_MODELS_URL"));

#include "App/main.cpp"
