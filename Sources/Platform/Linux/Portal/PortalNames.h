#pragma once

#include <QString>

// Where xdg-desktop-portal answers on the session bus.
namespace PortalNames {
inline const QString service = QStringLiteral("org.freedesktop.portal.Desktop");
inline const QString objectPath = QStringLiteral("/org/freedesktop/portal/desktop");
}
