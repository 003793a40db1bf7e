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
#include "StatusMenu.h"
#include "TrayMissingWindow.h"
#include "UpdaterManager.h"

#include <QIcon>
#include <QLockFile>
#include <QObject>
#include <QPointer>

#include <array>
#include <functional>
#include <memory>

class QMenu;
class QSystemTrayIcon;

// The running program: single instance, the tray icon that follows the dictation state with its
// menu, the windows and questions the menu leads to, and the dictation key wired to the dictation
// controller.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    // `platform` is the session's and `services` the desktop's, chosen at start-up; `settings` are
    // the user's preferences and `history` their dictations. All but the services outlive the delegate.
    AppDelegate(SessionPlatform& platform, PlatformServices services, Settings& settings, HistoryStore& history,
        ModelDownloader& downloader, QObject* parent = nullptr);
    ~AppDelegate() override;

    // The whole start-up; false when another copy already runs and this one must leave (main then
    // asks that copy to come forward).
    bool applicationDidFinishLaunching();

    // The menu the tray icon opens.
    StatusMenu& statusMenu() { return m_menu; }
    QMenu* menu() { return m_menu.menu(); }

    // What the menu's commands open.
    void openHistory();
    void openVideoTranscription();
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
    DictationController::Collaborators dictationCollaborators();

    SessionPlatform& m_platform;
    PlatformServices m_services;
    Settings& m_settings;
    HistoryStore& m_historyStore;
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
    StatusMenu m_menu;
    HotkeyManager m_hotkeyManager;
    DictationController m_dictation;
    // Built at their first opening, gone with the delegate (before the application).
    std::unique_ptr<HistoryWindow> m_history;
    std::unique_ptr<VideoTranscriptionWindow> m_videoWindow;
    std::unique_ptr<TrayMissingWindow> m_trayMissingWindow;
    // As last seen by checkSystemTray(); a tray is taken for there until then.
    bool m_trayAvailable = true;
};
