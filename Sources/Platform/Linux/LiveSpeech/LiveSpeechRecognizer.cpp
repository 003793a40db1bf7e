#include "LiveSpeechRecognizer.h"

#include "Shared/LiveSpeechModel.h"
#include "Shared/Logging.h"

#include <QFileInfo>

std::shared_ptr<SpeechRecognizer> LiveSpeechRecognizer::forLocale(const QString& localeIdentifier)
{
    const auto language = LiveSpeechRecognizer::languageFor(localeIdentifier);
    if (!language)
        return nullptr;
    auto recognizer = std::make_shared<LiveSpeechRecognizer>(LiveSpeechEngine::forInstalledModel(), *language);
    if (!recognizer->isAvailable()) {
        qCInfo(lcSpeech) << "the live model is not installed at" << LiveSpeechModel::installedPath();
        return nullptr;
    }
    return recognizer;
}

LiveSpeechRecognizer::LiveSpeechRecognizer(std::shared_ptr<LiveSpeechEngine> engine, QString language)
    : m_engine(std::move(engine))
    , m_language(std::move(language))
{
}

std::optional<QString> LiveSpeechRecognizer::languageFor(const QString& localeIdentifier)
{
    QString wanted = localeIdentifier;
    wanted.replace(QLatin1Char('_'), QLatin1Char('-'));
    for (const QString& language : LiveSpeechModel::languages()) {
        if (language.compare(wanted, Qt::CaseInsensitive) == 0)
            return language;
    }
    return std::nullopt;
}

bool LiveSpeechRecognizer::isAvailable() const
{
    return QFileInfo(m_engine->modelPath()).isFile();
}

std::shared_ptr<SpeechRecognizer::Request> LiveSpeechRecognizer::makeRequest(bool requiresOnDeviceRecognition)
{
    // Nothing to switch: every recognition already stays on the machine.
    Q_UNUSED(requiresOnDeviceRecognition);
    return m_engine->makeRequest(m_language);
}

std::shared_ptr<SpeechRecognizer::Task> LiveSpeechRecognizer::startTask(std::shared_ptr<Request> request, ResultHandler handler)
{
    return m_engine->startTask(std::move(request), std::move(handler));
}

void LiveSpeechRecognizer::prepare()
{
    m_engine->preload();
}
