#include "AppPaths.h"

#include <QDir>
#include <QStandardPaths>

namespace AppPaths {

QString applicationId()
{
    return QStringLiteral("app.voxaria.Voxaria");
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
