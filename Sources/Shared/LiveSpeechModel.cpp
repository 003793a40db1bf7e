#include "LiveSpeechModel.h"

#include "AppPaths.h"

namespace LiveSpeechModel {

QString fileName()
{
    return QStringLiteral("nemotron-3.5-asr-streaming-0.6b-Q8_0.gguf");
}

QString installedPath()
{
    return AppPaths::modelsFolder() + QLatin1Char('/') + fileName();
}

}
