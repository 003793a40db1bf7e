#include "Shared/Logging.h"

#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QStandardPaths>

#include "X11Display.h"
#include "X11FrontApplication.h"

#include <X11/Xatom.h>

std::unique_ptr<FrontApplication> FrontApplication::makeDefault()
{
    return std::make_unique<X11FrontApplication>();
}

namespace {

struct DesktopEntry {
    QString fileId;
    QString startupWMClass;
    QString name;
    QString portugueseName;
};

// Reads the keys we need from the [Desktop Entry] group; other groups (actions) are skipped.
DesktopEntry readDesktopEntry(const QString& path)
{
    DesktopEntry entry;
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

bool matchesEither(const QString& candidate, const FrontApplication::WindowClass& windowClass)
{
    return !candidate.isEmpty()
        && (candidate.compare(windowClass.className, Qt::CaseInsensitive) == 0
            || candidate.compare(windowClass.instance, Qt::CaseInsensitive) == 0);
}

std::optional<Window> focusedTopLevel(Display* display)
{
    const Window root = DefaultRootWindow(display);
    Window window = None;
    const Atom activeWindow = XInternAtom(display, "_NET_ACTIVE_WINDOW", False);
    if (const auto active = X11Display::cardinalProperty(display, root, activeWindow, XA_WINDOW))
        window = Window(*active);
    if (window == None) {
        // No window manager says which window is active: follow the keyboard focus instead.
        int revertTo = 0;
        XGetInputFocus(display, &window, &revertTo);
    }
    const Atom wmClass = XInternAtom(display, "WM_CLASS", False);
    // The focus often sits on a child of the application's top-level window; climb to the window
    // that carries the class, or at least to the top-level one.
    while (window != None && window != PointerRoot && window != root) {
        if (X11Display::stringProperty(display, window, wmClass))
            return window;
        Window rootReturn = None;
        Window parent = None;
        Window* children = nullptr;
        unsigned int count = 0;
        const bool ok = X11Display::withErrorsTrapped(display, [&] {
            XQueryTree(display, window, &rootReturn, &parent, &children, &count);
        });
        if (children)
            XFree(children);
        if (!ok)
            return std::nullopt;
        if (parent == root)
            return window;
        window = parent;
    }
    return std::nullopt;
}

std::optional<FrontApplication::WindowClass> classOf(Display* display, Window window)
{
    const std::optional<QByteArray> raw =
        X11Display::stringProperty(display, window, XInternAtom(display, "WM_CLASS", False));
    if (!raw)
        return std::nullopt;
    // Two NUL-terminated strings: the instance name, then the class.
    const QList<QByteArray> parts = raw->split('\0');
    FrontApplication::WindowClass windowClass;
    windowClass.instance = QString::fromLocal8Bit(parts.value(0));
    windowClass.className = QString::fromLocal8Bit(parts.value(1));
    return windowClass;
}

std::optional<QString> processName(Display* display, Window window)
{
    const auto pid =
        X11Display::cardinalProperty(display, window, XInternAtom(display, "_NET_WM_PID", False), XA_CARDINAL);
    if (!pid)
        return std::nullopt;
    QFile comm(QStringLiteral("/proc/%1/comm").arg(*pid));
    if (!comm.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QString name = QString::fromLocal8Bit(comm.readAll()).trimmed();
    return name.isEmpty() ? std::nullopt : std::optional<QString>(name);
}

}

// The installed .desktop entries, read once, and the name found for each window class. They are
// read again only when an applications folder changes (an application installed or removed), so
// the lookup before a paste costs a look at a few folders, not a read of hundreds of files.
class X11FrontApplication::DesktopNames {
public:
    std::optional<QString> nameFor(const WindowClass& windowClass)
    {
        if (!m_stamps || *m_stamps != stampsOf(m_folders))
            reload();
        const std::pair key(windowClass.instance, windowClass.className);
        auto found = m_names.constFind(key);
        if (found == m_names.cend())
            found = m_names.insert(key, match(windowClass));
        return *found;
    }

private:
    // A folder's modification time, and its number of entries for changes within one clock tick.
    using Stamp = std::pair<qint64, qsizetype>;

    static QList<Stamp> stampsOf(const QStringList& folders)
    {
        QList<Stamp> stamps;
        for (const QString& folder : folders)
            stamps.append({QFileInfo(folder).lastModified().toMSecsSinceEpoch(), QDir(folder).count()});
        return stamps;
    }

    void reload()
    {
        m_entries.clear();
        m_names.clear();
        const QStringList locations = QStandardPaths::standardLocations(QStandardPaths::ApplicationsLocation);
        m_folders = locations;
        for (const QString& folder : locations) {
            QDirIterator found(folder, {QStringLiteral("*.desktop")}, QDir::Files | QDir::AllDirs | QDir::NoDotAndDotDot,
                QDirIterator::Subdirectories);
            while (found.hasNext()) {
                const QString path = found.next();
                if (found.fileInfo().isDir())
                    m_folders.append(path);
                else
                    m_entries.append(readDesktopEntry(path));
            }
        }
        m_stamps = stampsOf(m_folders);
        qCDebug(lcApp) << "Read" << m_entries.size() << "application entries";
    }

    std::optional<QString> match(const WindowClass& windowClass) const
    {
        // An entry that names its window class is a surer match than one whose file merely shares it.
        for (const auto& matches : {&DesktopEntry::startupWMClass, &DesktopEntry::fileId}) {
            for (const DesktopEntry& entry : m_entries) {
                if (!entry.name.isEmpty() && matchesEither(entry.*matches, windowClass))
                    return entry.portugueseName.isEmpty() ? entry.name : entry.portugueseName;
            }
        }
        return std::nullopt;
    }

    QStringList m_folders;
    std::optional<QList<Stamp>> m_stamps;
    QList<DesktopEntry> m_entries;
    QHash<std::pair<QString, QString>, std::optional<QString>> m_names;
};

X11FrontApplication::X11FrontApplication()
    : m_desktopNames(std::make_unique<DesktopNames>())
{
}

X11FrontApplication::~X11FrontApplication() = default;

std::optional<QString> X11FrontApplication::desktopEntryName(const WindowClass& windowClass)
{
    return m_desktopNames->nameFor(windowClass);
}

std::optional<QString> X11FrontApplication::localizedName()
{
    Display* display = X11Display::shared();
    if (!display)
        return std::nullopt;
    const std::optional<Window> window = focusedTopLevel(display);
    if (!window)
        return std::nullopt;
    if (const std::optional<WindowClass> windowClass = classOf(display, *window)) {
        if (std::optional<QString> name = desktopEntryName(*windowClass))
            return name;
        if (!windowClass->className.isEmpty())
            return windowClass->className;
    }
    return processName(display, *window);
}

std::optional<FrontApplication::WindowClass> X11FrontApplication::windowClass()
{
    Display* display = X11Display::shared();
    if (!display)
        return std::nullopt;
    const std::optional<Window> window = focusedTopLevel(display);
    return window ? classOf(display, *window) : std::nullopt;
}

