#include "AppDelegate.h"

#include "Logging.h"
#include "StatusIcon.h"

#include <QApplication>
#include <QDir>
#include <QMenu>
#include <QStandardPaths>
#include <QSystemTrayIcon>

AppDelegate::AppDelegate(QObject* parent)
    : QObject(parent)
{
}

AppDelegate::~AppDelegate() = default;

bool AppDelegate::applicationDidFinishLaunching()
{
    if (!ensureSingleInstance())
        return false;
    setupStatusItem();
    return true;
}

bool AppDelegate::ensureSingleInstance()
{
    QString folder = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (folder.isEmpty())
        folder = QDir::tempPath();
    m_instanceLock = std::make_unique<QLockFile>(folder + QLatin1Char('/') + Settings::applicationId() + QStringLiteral(".lock"));
    // A lock left by a crashed copy is taken over: QLockFile checks whether its owner still lives.
    m_instanceLock->setStaleLockTime(0);
    if (m_instanceLock->tryLock(0))
        return true;
    qCInfo(lcApp) << "another Voxaria is running; leaving it alone";
    return false;
}

void AppDelegate::setupStatusItem()
{
    m_statusItem = std::make_unique<QSystemTrayIcon>(StatusIcon::make(StatusIcon::Tint::normal));
    m_statusItem->setToolTip(QStringLiteral("Voxaria"));
    refreshMenu();
    m_statusItem->show();
}

std::unique_ptr<QMenu> AppDelegate::buildMenu()
{
    auto menu = std::make_unique<QMenu>();
    menu->addAction(QStringLiteral("Segure ") + Settings::shared().hotKey().label() + QStringLiteral(" para ditar"))
        ->setEnabled(false);
    menu->addSeparator();
    menu->addAction(QStringLiteral("Sair do Voxaria"), QKeySequence(QStringLiteral("Ctrl+Q")), qApp, &QApplication::quit);
    return menu;
}

void AppDelegate::refreshMenu()
{
    // The menu is never edited in place: a fresh one replaces it after every change.
    std::unique_ptr<QMenu> fresh = buildMenu();
    m_statusItem->setContextMenu(fresh.get());
    m_menu = std::move(fresh);
}
