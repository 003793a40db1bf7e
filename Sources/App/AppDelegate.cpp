#include "AppDelegate.h"

#include "History/HistoryWindow.h"
#include "Shared/Logging.h"
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

    QPointer<AppDelegate> weakSelf(this);
    m_dictation.onStateChange = [weakSelf](DictationController::State state) {
        if (weakSelf)
            weakSelf->updateStatusIcon(state);
    };
    m_hotkeyManager.onPress = [weakSelf](std::optional<KeyEventTime> time) {
        if (weakSelf)
            weakSelf->m_dictation.startRecording(time);
    };
    m_hotkeyManager.onRelease = [weakSelf](std::optional<KeyEventTime> time) {
        if (weakSelf)
            weakSelf->m_dictation.stopRecordingAndInsert(time);
    };
    // Started once and never stopped: the key is watched for as long as the program runs.
    m_hotkeyManager.start();
    qCInfo(lcApp) << "ready; hold" << Settings::shared().hotKey().label() << "to dictate";
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
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        qCWarning(lcApp) << "no system tray on this desktop: the icon and its menu cannot be shown, but the dictation key works";
    m_statusItem = std::make_unique<QSystemTrayIcon>(StatusIcon::make(StatusIcon::Tint::normal));
    m_statusItem->setToolTip(QStringLiteral("Voxaria"));
    refreshMenu();
    m_statusItem->show();
}

void AppDelegate::updateStatusIcon(DictationController::State state)
{
    if (!m_statusItem)
        return;
    StatusIcon::Tint tint = StatusIcon::Tint::normal;
    switch (state) {
    case DictationController::State::idle: tint = StatusIcon::Tint::normal; break;
    case DictationController::State::recording: tint = StatusIcon::Tint::red; break;
    case DictationController::State::finishing: tint = StatusIcon::Tint::orange; break;
    }
    m_statusItem->setIcon(StatusIcon::make(tint));
}

std::unique_ptr<QMenu> AppDelegate::buildMenu()
{
    auto menu = std::make_unique<QMenu>();
    menu->addAction(QStringLiteral("Segure ") + Settings::shared().hotKey().label() + QStringLiteral(" para ditar"))
        ->setEnabled(false);
    menu->addSeparator();
    menu->addAction(QStringLiteral("Histórico de ditados…"), QKeySequence(QStringLiteral("Ctrl+H")), this,
                    [] { HistoryWindow::shared().show(); });
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
