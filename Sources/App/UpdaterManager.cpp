#include "UpdaterManager.h"

UpdaterManager& UpdaterManager::shared()
{
    static UpdaterManager manager;
    return manager;
}

QString UpdaterManager::version()
{
    return QStringLiteral(VOXARIA_VERSION);
}

void UpdaterManager::checkForUpdates()
{
}
