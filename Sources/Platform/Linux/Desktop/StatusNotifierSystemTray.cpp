#include "StatusNotifierSystemTray.h"

#include "Shared/Logging.h"

#include <QDBusConnection>
#include <QDBusServiceWatcher>
#include <QSystemTrayIcon>

namespace {

const QString watcherService = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString watcherPath = QStringLiteral("/StatusNotifierWatcher");

}

StatusNotifierSystemTray::StatusNotifierSystemTray()
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        qCDebug(lcApp) << "no session bus: a tray that comes or goes later goes unnoticed";
        return;
    }
    auto* watcher = new QDBusServiceWatcher(watcherService, bus, QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, &StatusNotifierSystemTray::announce);
    // A host (the panel that draws the icons) may end while the watcher stays, as plasmashell does.
    for (const char* signal : {"StatusNotifierHostRegistered", "StatusNotifierHostUnregistered"})
        bus.connect(watcherService, watcherPath, watcherService, QLatin1String(signal), this, SLOT(announce()));
}

bool StatusNotifierSystemTray::isAvailable()
{
    return QSystemTrayIcon::isSystemTrayAvailable();
}

void StatusNotifierSystemTray::announce()
{
    qCDebug(lcApp) << "a system tray may have come or gone";
    if (onChange)
        onChange();
}
