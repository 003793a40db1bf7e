#include "XdgAutostartLoginItem.h"

#include "Shared/Logging.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSaveFile>
#include <QStandardPaths>

// The desktop entry lives in the static core library's resources, which the linker drops unless
// something refers to them. Outside any namespace, as the macro requires.
static void registerBundledDesktopEntry()
{
    Q_INIT_RESOURCE(voxaria);
}

namespace {

// The desktop entry shipped in the resources, named after the application id like the installed
// one; the autostart entry takes its name, so the desktop sees one application.
QString shippedEntry()
{
    registerBundledDesktopEntry();
    const QDir resources(QStringLiteral(":/desktop"));
    return resources.filePath(resources.entryList({QStringLiteral("*.desktop")}).value(0));
}

// Desktop entries quote an argument holding a reserved character, escaping ", `, $ and \ inside
// the quotes; the whole value then goes through the string escapes, which double every backslash.
// A literal % is always written %%.
QString quotedForExec(QString path)
{
    path.replace(QLatin1Char('%'), QStringLiteral("%%"));
    static const QRegularExpression reserved(QStringLiteral("[\\s\"'\\\\><~|&;$*?#()`]"));
    if (!path.contains(reserved))
        return path;
    static const QRegularExpression escaped(QStringLiteral("([\"`$\\\\])"));
    const QString quoted = QLatin1Char('"') + path.replace(escaped, QStringLiteral("\\\\\\1")) + QLatin1Char('"');
    return QString(quoted).replace(QLatin1Char('\\'), QStringLiteral("\\\\"));
}

// Hidden=true in the [Desktop Entry] group: the user (or a desktop's settings) switched it off.
bool isHidden(const QString& entryText)
{
    bool inMainGroup = false;
    for (const QString& rawLine : entryText.split(QLatin1Char('\n'))) {
        const QString line = rawLine.trimmed();
        if (line.startsWith(QLatin1Char('[')))
            inMainGroup = line == QLatin1String("[Desktop Entry]");
        else if (inMainGroup && line.section(QLatin1Char('='), 0, 0).trimmed() == QLatin1String("Hidden"))
            return line.section(QLatin1Char('='), 1).trimmed() == QLatin1String("true");
    }
    return false;
}

QString withExec(const QString& entryText, const QString& command)
{
    QStringList lines = entryText.split(QLatin1Char('\n'));
    for (QString& line : lines) {
        if (line.startsWith(QLatin1String("Exec=")))
            line = QStringLiteral("Exec=") + command;
    }
    return lines.join(QLatin1Char('\n'));
}

}

QString XdgAutostartLoginItem::entryPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QStringLiteral("/autostart/")
        + QFileInfo(shippedEntry()).fileName();
}

QString XdgAutostartLoginItem::execCommand()
{
    const QString running = QFileInfo(QCoreApplication::applicationFilePath()).canonicalFilePath();
    const QString onPath = QStandardPaths::findExecutable(QStringLiteral("voxaria"));
    if (!onPath.isEmpty() && QFileInfo(onPath).canonicalFilePath() == running)
        return QStringLiteral("voxaria");
    return quotedForExec(running);
}

LoginItem::Status XdgAutostartLoginItem::status()
{
    QFile entry(entryPath());
    if (!entry.exists())
        return Status::notRegistered;
    // An entry we cannot read still starts the program at login.
    if (!entry.open(QIODevice::ReadOnly))
        return Status::enabled;
    return isHidden(QString::fromUtf8(entry.readAll())) ? Status::notRegistered : Status::enabled;
}

std::optional<QString> XdgAutostartLoginItem::registerItem()
{
    QFile shipped(shippedEntry());
    if (!shipped.open(QIODevice::ReadOnly))
        return QStringLiteral("a entrada de área de trabalho do Voxaria não está no programa");
    const QString path = entryPath();
    const QString folder = QFileInfo(path).absolutePath();
    if (!QDir().mkpath(folder))
        return QStringLiteral("não foi possível criar a pasta ") + folder;
    QSaveFile file(path);
    const QByteArray text = withExec(QString::fromUtf8(shipped.readAll()), execCommand()).toUtf8();
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size() || !file.commit())
        return QStringLiteral("não foi possível gravar ") + path + QStringLiteral(": ") + file.errorString();
    qCInfo(lcApp) << "launch at login registered in" << path;
    return std::nullopt;
}

std::optional<QString> XdgAutostartLoginItem::unregisterItem()
{
    QFile file(entryPath());
    if (file.exists() && !file.remove())
        return QStringLiteral("não foi possível apagar ") + file.fileName() + QStringLiteral(": ") + file.errorString();
    qCInfo(lcApp) << "launch at login unregistered";
    return std::nullopt;
}
