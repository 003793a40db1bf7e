#include "PocketSphinxModel.h"

#include "Shared/AppPaths.h"
#include "Shared/Logging.h"

#include <QDir>
#include <QFileInfo>

namespace {

// Users write "pt_BR" as often as "pt-BR"; folder names use the hyphen.
QString folderNameFor(const QString& localeIdentifier)
{
    return localeIdentifier.toLower().replace(QLatin1Char('_'), QLatin1Char('-'));
}

std::optional<QString> localeFolderIn(const QString& base, const QString& wanted)
{
    const QDir dir(base);
    for (const QString& name : dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
        if (name.toLower() == wanted)
            return dir.filePath(name);
    }
    return std::nullopt;
}

bool isAcousticModel(const QString& folder)
{
    return QFileInfo::exists(folder + QStringLiteral("/mdef")) && QFileInfo::exists(folder + QStringLiteral("/means"));
}

std::optional<QString> acousticModelIn(const QDir& dir)
{
    if (isAcousticModel(dir.path()))
        return dir.path();
    for (const QString& name : dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name)) {
        if (isAcousticModel(dir.filePath(name)))
            return dir.filePath(name);
    }
    return std::nullopt;
}

// Debian ships a phone-loop language model beside the word model; it only yields phonemes.
std::optional<QString> firstFileIn(const QDir& dir, const QStringList& patterns)
{
    for (const QString& name : dir.entryList(patterns, QDir::Files, QDir::Name)) {
        if (!name.contains(QLatin1String("phone"), Qt::CaseInsensitive))
            return dir.filePath(name);
    }
    return std::nullopt;
}

}

std::optional<PocketSphinxModel> PocketSphinxModel::inFolder(const QString& folder)
{
    const QDir dir(folder);
    const auto acoustic = acousticModelIn(dir);
    const auto language
        = firstFileIn(dir, {QStringLiteral("*.lm.bin"), QStringLiteral("*.lm"), QStringLiteral("*.lm.dmp"), QStringLiteral("*.lm.DMP")});
    const auto dictionary = firstFileIn(dir, {QStringLiteral("*.dict"), QStringLiteral("*.dic")});
    if (!acoustic || !language || !dictionary) {
        qCDebug(lcSpeech) << "incomplete speech model in" << folder << "acoustic" << acoustic.has_value() << "language"
                          << language.has_value() << "dictionary" << dictionary.has_value();
        return std::nullopt;
    }
    return PocketSphinxModel{*acoustic, *language, *dictionary};
}

std::optional<PocketSphinxModel> PocketSphinxModel::find(const QString& localeIdentifier)
{
    const QString wanted = folderNameFor(localeIdentifier);
    for (const QString& base : searchFolders()) {
        if (const auto folder = localeFolderIn(base, wanted)) {
            if (auto model = inFolder(*folder))
                return model;
        }
    }
    qCInfo(lcSpeech) << "no PocketSphinx model for" << localeIdentifier << "in" << searchFolders();
    return std::nullopt;
}

bool PocketSphinxModel::isShippedWithSystem() const
{
    const QString system = QStringLiteral(POCKETSPHINX_MODEL_DIR "/");
    return acousticModel.startsWith(system) && languageModel.startsWith(system) && dictionary.startsWith(system);
}

QStringList PocketSphinxModel::searchFolders()
{
    return {AppPaths::dataFolder() + QStringLiteral("/speech"), QStringLiteral(POCKETSPHINX_MODEL_DIR)};
}
