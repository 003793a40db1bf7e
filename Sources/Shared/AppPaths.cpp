#include "AppPaths.h"

#include <QDir>
#include <QStandardPaths>
#include <QUuid>

namespace AppPaths {

QString applicationId()
{
    return QStringLiteral("app.voxaria.Voxaria");
}

QString settingsFile()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QLatin1Char('/') + applicationId()
        + QStringLiteral(".conf");
}

QString dataFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Voxaria");
}

QString modelsFolder()
{
    return dataFolder() + QStringLiteral("/models");
}

QString temporaryFolder()
{
    return QDir::tempPath();
}

QString scratchPath(const QString& prefix, const QString& suffix)
{
    return temporaryFolder() + QLatin1Char('/') + prefix + QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper() + suffix;
}

QString runtimeFolder()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    return folder.isEmpty() ? QDir::tempPath() : folder;
}

QString runtimeFile(const QString& suffix)
{
    return runtimeFolder() + QLatin1Char('/') + applicationId() + suffix;
}

}
