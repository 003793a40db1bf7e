#pragma once

#include "Dictation/DictationController.h"
#include "Dictation/HotkeyManager.h"
#include "Engines/ModelDownloader.h"
#include "History/HistoryWindow.h"
#include "Media/VideoTranscriptionWindow.h"
#include "Permissions.h"
#include "Platform/PlatformServices.h"
#include "Platform/SessionPlatform.h"
#include "Shared/Preferences/Settings.h"
#include "TrayMissingWindow.h"
#include "UpdaterManager.h"

#include <QIcon>
#include <QLockFile>
#include <QObject>
#include <QPointer>

#include <array>
#include <functional>
#include <memory>

class QAction;
class QMenu;
class QSystemTrayIcon;

// The running program: single instance, the tray icon that follows the dictation state, its menu
// (the program's whole preferences and command surface), and the dictation key wired to the
// dictation controller.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    // `platform` is the session's and `services` the desktop's, chosen at start-up; `settings` are
    // the user's preferences. The platform, the settings and the downloader outlive the delegate.
    AppDelegate(
        SessionPlatform& platform, PlatformServices services, Settings& settings, ModelDownloader& downloader, QObject* parent = nullptr);
    ~AppDelegate() override;

    // The whole start-up; false when another copy already runs and this one must leave (main then
    // asks that copy to come forward).
    bool applicationDidFinishLaunching();

    // When whisper-cli is there but no model is, asks whether to download the recommended one, at
    // every launch until a model is installed. A model that arrives selects the Whisper engine;
    // `onDownloadEnded` runs after every download it started, whatever the outcome.
    static void maybeOfferModelDownload(
        Alerts& alerts, ModelDownloader& downloader, Settings& settings, std::function<void()> onDownloadEnded);

    // The menu the tray icon opens, as last built from the settings (built on first use).
    QMenu* menu();

    // The menu's actions. Those with an argument take the chosen item's value (a raw value, a
    // model file name or a language identifier) and ignore one they do not know.
    void selectEngine(const QString& rawValue);
    void selectModel(const QString& fileName);
    void selectHotkey(const QString& rawValue);
    void selectLanguage(const QString& identifier);
    void toggleOnDevice();
    void toggleSounds();
    void openHistory();
    void openVideoTranscription();
    void toggleLaunchAtLogin();
    void openPermissions();
    void checkForUpdates();
    // The help page, in the user's browser.
    void openHelp();

    // Without a system tray the menu cannot be shown: "O Voxaria está em execução" says so, with
    // the menu's main commands. Shown when the tray is missing at start-up and each time it goes
    // away later, not again while it stays away. Runs at start-up and whenever the tray may have
    // changed.
    void checkSystemTray();

    // The user started the program again while this copy runs: without a tray, "O Voxaria está em
    // execução" shows again (closing it hid the only way in); with one, the menu opens where the
    // pointer is.
    void comeForward();

private:
    void showTrayMissingWindow();
    bool ensureSingleInstance();
    void setupStatusItem();
    void updateStatusIcon(DictationController::State state);
    void requestPermissions();
    void maybeOfferModelDownload();
    // A Wayland session where nothing can see the dictation key says so once per launch.
    void maybeWarnNoKeySource();
    void maybeWarnNoEngine();
    void prepareLiveEngine();
    std::unique_ptr<QMenu> buildMenu();
    void addEngineMenu(QMenu& menu);
    void addModelMenu(QMenu& menu);
    void addRemovalItems(QMenu& models);
    void confirmRemoval(const QString& title, const QString& warning, const std::function<void()>& remove);
    void addHotkeyMenu(QMenu& menu);
    void addLanguageMenu(QMenu& menu);
    void whenChosen(QAction* item, std::function<void()> action);
    void refreshMenu();
    // Downloads a model; once it has arrived its engine (Whisper, or the native one for the live
    // model) is selected, and the menu is refreshed after every outcome.
    void download(const ModelDownloader::Model& model);
    std::function<void()> refreshMenuLater();

    DictationController::Collaborators dictationCollaborators();

    SessionPlatform& m_platform;
    PlatformServices m_services;
    Settings& m_settings;
    ModelDownloader& m_downloader;
    // Made with the delegate, it starts the daily check where the build has a feed.
    UpdaterManager m_updater;
    Permissions::Checks m_checks;
    std::unique_ptr<QLockFile> m_instanceLock;
    std::unique_ptr<QSystemTrayIcon> m_statusItem;
    // The waveform in each tint, drawn once. Every icon Qt draws at a size it was not given leaves
    // a scaled copy in the pixmap cache under that icon's own key, so a fresh icon per state change
    // left three dead copies behind per dictation, about 8 kB, until the cache's 10 MB were full.
    std::array<QIcon, 3> m_statusIcons;
    std::unique_ptr<QMenu> m_menu;
    HotkeyManager m_hotkeyManager;
    DictationController m_dictation;
    // Built at their first opening, gone with the delegate (before the application).
    std::unique_ptr<HistoryWindow> m_history;
    std::unique_ptr<VideoTranscriptionWindow> m_videoWindow;
    std::unique_ptr<TrayMissingWindow> m_trayMissingWindow;
    // As last seen by checkSystemTray(); a tray is taken for there until then.
    bool m_trayAvailable = true;
};
