#include "AppPaths.h"

#include <QDir>
#include <QStandardPaths>

namespace AppPaths {

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

}
