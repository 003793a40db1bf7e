#pragma once

#include "Dictation/DictationController.h"
#include "Dictation/HotkeyManager.h"
#include "Settings.h"

#include <QLockFile>
#include <QObject>
#include <QPointer>

#include <functional>
#include <memory>

class Alerts;
class ModelDownloader;
class QMenu;
class QSystemTrayIcon;

// The running program: single instance, the tray icon that follows the dictation state, its menu,
// and the dictation key wired to the dictation controller.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    explicit AppDelegate(QObject* parent = nullptr);
    ~AppDelegate() override;

    // The whole start-up; false when another copy already runs and this one must leave quietly.
    bool applicationDidFinishLaunching();

    // When whisper-cli is there but no model is, asks whether to download the recommended one, at
    // every launch until a model is installed. A model that arrives selects the Whisper engine;
    // `onDownloadEnded` runs after every download it started, whatever the outcome.
    static void maybeOfferModelDownload(Alerts& alerts, ModelDownloader& downloader, std::function<void()> onDownloadEnded);

private:
    bool ensureSingleInstance();
    void setupStatusItem();
    void updateStatusIcon(DictationController::State state);
    std::unique_ptr<QMenu> buildMenu();
    void refreshMenu();
    void maybeOfferModelDownload();

    std::unique_ptr<QLockFile> m_instanceLock;
    std::unique_ptr<QSystemTrayIcon> m_statusItem;
    std::unique_ptr<QMenu> m_menu;
    HotkeyManager m_hotkeyManager;
    DictationController m_dictation;
};
