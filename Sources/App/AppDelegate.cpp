#include "AppDelegate.h"

#include "Dictation/HUDPanel.h"
#include "Dictation/TextInserter.h"
#include "Engines/ModelDownloadWindow.h"
#include "Engines/WhisperTranscriber.h"
#include "History/HistoryWindow.h"
#include "Media/MediaTranscriber.h"
#include "Media/VideoTranscriptionWindow.h"
#include "Permissions.h"
#include "Platform/SpeechRecognizer.h"
#include "Shared/AppPaths.h"
#include "Shared/Logging.h"
#include "StatusIcon.h"
#include "StatusMenu.h"
#include "UpdaterManager.h"

#include <QApplication>
#include <QCursor>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTimer>

#include <utility>

namespace {

// What a dictation is asked for, as the user's preferences stand now.
DictationOptions dictationOptions(const Settings& settings)
{
    return {settings.localeIdentifier(), settings.whisperModelFileName(), settings.preferOnDevice()};
}

}

AppDelegate::AppDelegate(SessionPlatform& platform, PlatformServices services, Settings& settings, HistoryStore& history,
    ModelDownloader& downloader, QObject* parent)
    : QObject(parent)
    , m_platform(platform)
    , m_services(std::move(services))
    , m_settings(settings)
    , m_historyStore(history)
    , m_downloader(downloader)
    , m_updater(UpdaterManager::Channel::fromBuild(), m_services.alerts, m_services.urlOpener)
    , m_checks(Permissions::Checks::system(platform, m_services.microphoneListed))
    , m_menu(platform, settings, downloader, *m_services.alerts, *m_services.loginItem,
          {
              .openVideoTranscription = [this] { openVideoTranscription(); },
              .openHistory = [this] { openHistory(); },
              .openPermissions = [this] { openPermissions(); },
              .checkForUpdates = [this] { checkForUpdates(); },
              .engineChosen = [this] { prepareLiveEngine(); },
              .hotKeyChosen = [this] { m_hotkeyManager.dictationKeyChanged(); },
          })
    , m_hotkeyManager(platform.takeKeyMonitor(), [&settings] { return settings.hotKey(); })
    , m_dictation(dictationCollaborators(), history)
{
    ModelDownloadWindow::follow(m_downloader);
    // A Whisper model that has just arrived is the one dictation uses from then on.
    connect(&m_downloader, &ModelDownloader::whisperModelInstalled, this,
        [&settings](const QString& fileName) { settings.setWhisperModelFileName(fileName); });
}

// The session's paste and front application; an engine per key press for the preferences at that
// moment, and the sounds while the user wants them.
DictationController::Collaborators AppDelegate::dictationCollaborators()
{
    DictationController::Collaborators collaborators = DictationController::Collaborators::forSession(m_platform);
    collaborators.makeEngine = [&settings = m_settings, &services = m_services] {
        return DictationController::makeEngine(settings.engine(), dictationOptions(settings), services);
    };
    collaborators.sounds = FeedbackSounds(m_services.sounds, [&settings = m_settings] { return settings.playSounds(); });
    collaborators.display = std::make_unique<HUDPanel>();
    return collaborators;
}

AppDelegate::~AppDelegate() = default;

bool AppDelegate::applicationDidFinishLaunching()
{
    if (!ensureSingleInstance())
        return false;
    m_platform.onSecondLaunch([weakSelf = QPointer<AppDelegate>(this)] {
        if (weakSelf)
            weakSelf->comeForward();
    });
    MediaTranscriber::removeLeftovers();
    prepareLiveEngine();
    setupStatusItem();
    requestPermissions();

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
    // Never stopped: the key is watched for as long as the program runs, and a key chosen in the
    // menu counts from the next event on.
    m_hotkeyManager.start();
    // Which of the possible whisper-cli programs a dictation will run, when there is one at all.
    if (const std::optional<QString> whisper = WhisperTranscriber::binaryURL())
        qCInfo(lcWhisper) << "whisper-cli:" << *whisper;
    qCInfo(lcApp) << "ready; hold" << m_settings.hotKey().label() << "to dictate";
    // The questions come last, once the event loop runs: the key already works while they wait for
    // an answer, and "Sair do Voxaria" chosen meanwhile ends the program, as a quit asked before the
    // application's loop has started would be dropped.
    QTimer::singleShot(0, this, [this] {
        checkSystemTray();
        m_services.systemTray->onChange = [weakSelf = QPointer<AppDelegate>(this)] {
            if (weakSelf)
                weakSelf->checkSystemTray();
        };
        maybeOfferModelDownload();
        maybeWarnNoEngine();
        maybeWarnNoKeySource();
    });
    return true;
}

bool AppDelegate::ensureSingleInstance()
{
    m_instanceLock = std::make_unique<QLockFile>(AppPaths::runtimeFile(QStringLiteral(".lock")));
    // A lock left by a crashed copy is taken over: QLockFile checks whether its owner still lives.
    m_instanceLock->setStaleLockTime(0);
    if (m_instanceLock->tryLock(0))
        return true;
    qCInfo(lcApp) << "another Voxaria is running; asking it to come forward";
    return false;
}

void AppDelegate::requestPermissions()
{
    // Nothing is shown here: a missing need is only logged, and dictation explains itself when the
    // user tries it.
    Permissions::requestAtLaunch(m_settings.localeIdentifier(), m_checks);
}

void AppDelegate::maybeOfferModelDownload()
{
    StatusMenu::maybeOfferModelDownload(*m_services.alerts, m_downloader, m_settings, m_menu.refreshLater());
}

void AppDelegate::maybeWarnNoKeySource()
{
    if (const std::optional<Alerts::Alert> warning = Permissions::noKeySourceAlert(m_platform))
        m_services.alerts->runModal(*warning);
}

void AppDelegate::maybeWarnNoEngine()
{
    const QString language = m_settings.localeIdentifier();
    const std::optional<Alerts::Alert> warning
        = Permissions::noEngineAlert(WhisperTranscriber::binaryURL().has_value(), m_checks.nativeModelFound(language), language);
    if (!warning)
        return;
    qCWarning(lcApp) << "no engine can dictate in" << language;
    m_services.alerts->runModal(*warning);
}

// The live model takes seconds to load: with the native engine chosen it loads now, on the
// recogniser's worker, so the first dictation does not wait for it.
void AppDelegate::prepareLiveEngine()
{
    if (m_settings.engine() != TranscriptionEngineKind::apple)
        return;
    if (const std::shared_ptr<SpeechRecognizer> recognizer = m_services.makeRecognizer(m_settings.localeIdentifier()))
        recognizer->prepare();
}

void AppDelegate::setupStatusItem()
{
    for (const StatusIcon::Tint tint : {StatusIcon::Tint::normal, StatusIcon::Tint::red, StatusIcon::Tint::orange})
        m_statusIcons.at(size_t(tint)) = StatusIcon::make(tint);
    const QIcon& icon = m_statusIcons.at(size_t(StatusIcon::Tint::normal));
    // Every window of the program (history, video, downloads, alerts) carries the tray's waveform.
    QApplication::setWindowIcon(icon);
    m_statusItem = std::make_unique<QSystemTrayIcon>(icon);
    m_statusItem->setToolTip(QStringLiteral("Voxaria"));
    // A click opens the same menu as a right click, as a click on a menu-bar item does.
    connect(m_statusItem.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger)
            menu()->popup(QCursor::pos());
    });
    connect(&m_menu, &StatusMenu::replaced, m_statusItem.get(), &QSystemTrayIcon::setContextMenu);
    m_menu.refresh();
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
    m_statusItem->setIcon(m_statusIcons.at(size_t(tint)));
}

void AppDelegate::openHistory()
{
    if (!m_history)
        m_history = std::make_unique<HistoryWindow>(m_historyStore, *m_services.alerts, m_platform.pasteboard());
    m_history->show();
}

void AppDelegate::openVideoTranscription()
{
    if (!m_videoWindow) {
        Settings& settings = m_settings;
        m_videoWindow = std::make_unique<VideoTranscriptionWindow>(VideoTranscriptionWindow::Services{
            .alerts = m_services.alerts,
            .fileDialogs = m_services.fileDialogs,
            .sounds = FeedbackSounds(m_services.sounds, [&settings] { return settings.playSounds(); }),
            .pasteboard = m_platform.pasteboard(),
            .ytDlpPath = {},
            .ytDlpSource = {},
            .makeMediaReader = m_services.makeMediaReader,
            .whisperModelFileName = [&settings] { return settings.whisperModelFileName(); },
            .ytDlpUpdateDeclined = {[&settings] { return settings.ytDlpUpdateDeclined(); },
                [&settings](const bool& declined) { settings.setYtDlpUpdateDeclined(declined); }},
        });
    }
    m_videoWindow->show();
}

void AppDelegate::openPermissions()
{
    const QString language = m_settings.localeIdentifier();
    // The sound server is asked off the main thread; the alert comes when it has answered.
    Permissions::check(
        language,
        [weakSelf = QPointer<AppDelegate>(this), language](Permissions::Needs needs) {
            if (weakSelf
                && weakSelf->m_services.alerts->runModal(
                       Permissions::permissionsAlert(needs, language, Permissions::WaylandUse::of(weakSelf->m_platform)))
                    == 0)
                weakSelf->openHelp();
        },
        m_checks);
}

void AppDelegate::checkForUpdates()
{
    m_updater.checkForUpdates();
}

void AppDelegate::checkSystemTray()
{
    const bool available = m_services.systemTray->isAvailable();
    if (!std::exchange(m_trayAvailable, available) || available)
        return;
    qCWarning(lcApp) << "no system tray on this desktop: the icon and its menu cannot be shown, but the dictation key works;"
                     << "showing \"O Voxaria está em execução\"";
    showTrayMissingWindow();
}

void AppDelegate::showTrayMissingWindow()
{
    if (!m_trayMissingWindow) {
        // The window goes with the delegate, and its buttons with it.
        m_trayMissingWindow = std::make_unique<TrayMissingWindow>(
            TrayMissingWindow::Actions{
                .openHistory = [this] { openHistory(); },
                .openVideoTranscription = [this] { openVideoTranscription(); },
                .openHelp = [this] { openHelp(); },
                // Queued, as the menu's: the click is over before the loop ends.
                .quit = [] { QMetaObject::invokeMethod(qApp, &QApplication::quit, Qt::QueuedConnection); },
            },
            *m_services.windowFocus);
    }
    m_trayMissingWindow->show();
}

void AppDelegate::comeForward()
{
    if (!m_services.systemTray->isAvailable()) {
        qCInfo(lcApp) << "started again: showing \"O Voxaria está em execução\"";
        showTrayMissingWindow();
        return;
    }
    qCInfo(lcApp) << "started again: opening the menu";
    menu()->popup(QCursor::pos());
}

void AppDelegate::openHelp()
{
    m_services.urlOpener->open(Permissions::helpPageURL());
}
