#pragma once

#include "Platform/SystemTray.h"

#include <QObject>

// Qt shows the icon through a StatusNotifierItem host (KDE, GNOME's AppIndicator extension, most
// panels today) when one is registered with the session bus's org.kde.StatusNotifierWatcher at
// start-up, and otherwise on xcb through an XEmbed tray (the _NET_SYSTEM_TRAY_S<n> selection);
// QSystemTrayIcon::isSystemTrayAvailable() asks whichever it uses. Qt has no signal for a tray that
// comes or goes: the watcher's name on the bus, and the hosts it announces, stand in for one. An
// XEmbed tray that goes away unannounced is not noticed.
class StatusNotifierSystemTray final : public QObject, public SystemTray {
    Q_OBJECT
public:
    StatusNotifierSystemTray();

    bool isAvailable() override;

private slots:
    void announce();
};
