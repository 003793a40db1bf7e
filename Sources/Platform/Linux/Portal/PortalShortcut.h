#pragma once

#include <QDBusArgument>
#include <QList>
#include <QMetaType>
#include <QString>
#include <QVariantMap>

// One shortcut as the GlobalShortcuts portal passes it (D-Bus `(sa{sv})`): our id for it and its
// properties ("description", "preferred_trigger" going in; "trigger_description" coming back).
struct PortalShortcut {
    QString id;
    QVariantMap properties;

    // Makes lists of shortcuts travel as `a(sa{sv})`; once, before the first call.
    static void registerType();
};

QDBusArgument& operator<<(QDBusArgument& argument, const PortalShortcut& shortcut);
const QDBusArgument& operator>>(const QDBusArgument& argument, PortalShortcut& shortcut);

Q_DECLARE_METATYPE(PortalShortcut)
