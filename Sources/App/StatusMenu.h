#pragma once

#include "Engines/ModelDownloader.h"
#include "Platform/Alerts.h"
#include "Platform/LoginItem.h"
#include "Platform/SessionPlatform.h"
#include "Shared/Preferences/Settings.h"

#include <QObject>

#include <functional>
#include <memory>

class QAction;
class QMenu;

// The tray icon's menu: the program's whole preferences and command surface. It is built from the
// settings and built afresh after every change; its choices write the settings, and the commands it
// does not carry out itself go to its owner.
class StatusMenu : public QObject {
    Q_OBJECT
public:
    // What the owner does when the menu asks.
    struct Commands {
        std::function<void()> openVideoTranscription;
        std::function<void()> openHistory;
        std::function<void()> openPermissions;
        std::function<void()> checkForUpdates;
        // After a new engine or dictation key was written to the settings.
        std::function<void()> engineChosen;
        std::function<void()> hotKeyChosen;
    };

    // Everything handed in outlives the menu.
    StatusMenu(const SessionPlatform& platform, Settings& settings, ModelDownloader& downloader, Alerts& alerts, LoginItem& loginItem,
        Commands commands, QObject* parent = nullptr);
    ~StatusMenu() override;

    // When whisper-cli is there but no model is, asks whether to download the recommended one, at
    // every launch until a model is installed. A model that arrives selects the Whisper engine;
    // `onDownloadEnded` runs after every download it started, whatever the outcome.
    static void maybeOfferModelDownload(
        Alerts& alerts, ModelDownloader& downloader, Settings& settings, std::function<void()> onDownloadEnded);

    // The menu as last built from the settings (built on first use).
    QMenu* menu();
    // Builds the menu afresh; the old one goes once the event loop is back.
    void refresh();
    // refresh(), for a callback that may run after the menu is gone.
    std::function<void()> refreshLater();

    // The menu's choices. Those with an argument take the chosen item's value (a raw value, a model
    // file name or a language identifier) and ignore one they do not know.
    void selectEngine(const QString& rawValue);
    void selectModel(const QString& fileName);
    void selectHotkey(const QString& rawValue);
    void selectLanguage(const QString& identifier);
    void toggleOnDevice();
    void toggleSounds();
    void toggleLaunchAtLogin();

signals:
    // A fresh menu took the old one's place.
    void replaced(QMenu* menu);

private:
    std::unique_ptr<QMenu> build();
    void addEngineMenu(QMenu& menu);
    void addModelMenu(QMenu& menu);
    void addRemovalItems(QMenu& models);
    void confirmRemoval(const QString& title, const QString& warning, const std::function<void()>& remove);
    void addHotkeyMenu(QMenu& menu);
    void addLanguageMenu(QMenu& menu);
    void whenChosen(QAction* item, std::function<void()> action);
    // Downloads a model; once it has arrived its engine (Whisper, or the native one for the live
    // model) is selected, and the menu is refreshed after every outcome.
    void download(const ModelDownloader::Model& model);

    const SessionPlatform& m_platform;
    Settings& m_settings;
    ModelDownloader& m_downloader;
    Alerts& m_alerts;
    LoginItem& m_loginItem;
    const Commands m_commands;
    std::unique_ptr<QMenu> m_menu;
};
