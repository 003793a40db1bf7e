#pragma once

#include "Platform/FrontApplication.h"

#include <QHash>
#include <QList>
#include <QStringList>

#include <optional>
#include <utility>

// The names users know applications by, from the installed .desktop entries: the entry's Name (its
// pt_BR translation when it has one) for a window class or Wayland application id. The entries are
// read once and again only when an applications folder changes (an application installed or
// removed), so the lookup before a paste costs a look at a few folders, not a read of hundreds of
// files.
class DesktopEntryNames {
public:
    std::optional<QString> nameFor(const FrontApplication::WindowClass& windowClass);
    // The name of a running program's executable, for windows no entry names.
    static std::optional<QString> processName(qint64 pid);

private:
    struct Entry {
        QString fileId;
        QString startupWMClass;
        QString name;
        QString portugueseName;
    };
    // A folder's modification time, and its number of entries for changes within one clock tick.
    using Stamp = std::pair<qint64, qsizetype>;

    static Entry read(const QString& path);
    static QList<Stamp> stampsOf(const QStringList& folders);
    void reload();
    std::optional<QString> match(const FrontApplication::WindowClass& windowClass) const;

    QStringList m_folders;
    std::optional<QList<Stamp>> m_stamps;
    QList<Entry> m_entries;
    QHash<std::pair<QString, QString>, std::optional<QString>> m_names;
};
