#include "DesktopEntryNames.h"

#include "Shared/Logging.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

namespace {

bool matchesEither(const QString& candidate, const FrontApplication::WindowClass& windowClass)
{
    return !candidate.isEmpty()
        && (candidate.compare(windowClass.className, Qt::CaseInsensitive) == 0
            || candidate.compare(windowClass.instance, Qt::CaseInsensitive) == 0);
}

}

std::optional<QString> DesktopEntryNames::nameFor(const FrontApplication::WindowClass& windowClass)
{
    if (!m_stamps || *m_stamps != stampsOf(m_folders))
        reload();
    const std::pair key(windowClass.instance, windowClass.className);
    auto found = m_names.constFind(key);
    if (found == m_names.cend())
        found = m_names.insert(key, match(windowClass));
    return *found;
}

std::optional<QString> DesktopEntryNames::processName(qint64 pid)
{
    QFile comm(QStringLiteral("/proc/%1/comm").arg(pid));
    if (pid <= 0 || !comm.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QString name = QString::fromLocal8Bit(comm.readAll()).trimmed();
    return name.isEmpty() ? std::nullopt : std::optional<QString>(name);
}

// Reads the keys we need from the [Desktop Entry] group; other groups (actions) are skipped.
DesktopEntryNames::Entry DesktopEntryNames::read(const QString& path)
{
    Entry entry;
    entry.fileId = QFileInfo(path).completeBaseName();
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return entry;
    QString brazilian;
    QString portuguese;
    bool inMainGroup = false;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.startsWith(QLatin1Char('['))) {
            inMainGroup = line == QLatin1String("[Desktop Entry]");
            continue;
        }
        const qsizetype equals = line.indexOf(QLatin1Char('='));
        if (!inMainGroup || equals <= 0)
            continue;
        const QString key = line.left(equals).trimmed();
        const QString value = line.mid(equals + 1).trimmed();
        if (key == QLatin1String("Name"))
            entry.name = value;
        else if (key == QLatin1String("Name[pt_BR]"))
            brazilian = value;
        else if (key == QLatin1String("Name[pt]"))
            portuguese = value;
        else if (key == QLatin1String("StartupWMClass"))
            entry.startupWMClass = value;
    }
    entry.portugueseName = brazilian.isEmpty() ? portuguese : brazilian;
    return entry;
}

QList<DesktopEntryNames::Stamp> DesktopEntryNames::stampsOf(const QStringList& folders)
{
    QList<Stamp> stamps;
    for (const QString& folder : folders)
        stamps.append({QFileInfo(folder).lastModified().toMSecsSinceEpoch(), QDir(folder).count()});
    return stamps;
}

void DesktopEntryNames::reload()
{
    m_entries.clear();
    m_names.clear();
    const QStringList locations = QStandardPaths::standardLocations(QStandardPaths::ApplicationsLocation);
    m_folders = locations;
    for (const QString& folder : locations) {
        QDirIterator found(
            folder, {QStringLiteral("*.desktop")}, QDir::Files | QDir::AllDirs | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
        while (found.hasNext()) {
            const QString path = found.next();
            if (found.fileInfo().isDir())
                m_folders.append(path);
            else
                m_entries.append(read(path));
        }
    }
    m_stamps = stampsOf(m_folders);
    qCDebug(lcApp) << "Read" << m_entries.size() << "application entries";
}

std::optional<QString> DesktopEntryNames::match(const FrontApplication::WindowClass& windowClass) const
{
    // An entry that names its window class is a surer match than one whose file merely shares it.
    for (const auto& matches : {&Entry::startupWMClass, &Entry::fileId}) {
        for (const Entry& entry : m_entries) {
            if (!entry.name.isEmpty() && matchesEither(entry.*matches, windowClass))
                return entry.portugueseName.isEmpty() ? entry.name : entry.portugueseName;
        }
    }
    return std::nullopt;
}
