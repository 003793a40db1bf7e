#include "AppDelegate.h"

#include "Dictation/TextInserter.h"
#include "Engines/WhisperTranscriber.h"
#include "History/HistoryWindow.h"
#include "LanguageOption.h"
#include "Media/MediaTranscriber.h"
#include "Media/VideoTranscriptionWindow.h"
#include "Permissions.h"
#include "Platform/SpeechRecognizer.h"
#include "Shared/AppPaths.h"
#include "Shared/Logging.h"
#include "StatusIcon.h"
#include "UpdaterManager.h"

#include <QApplication>
#include <QCursor>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMenu>
#include <QStandardPaths>
#include <QSystemTrayIcon>
#include <QTimer>

#include <algorithm>
#include <utility>

namespace {

using Model = ModelDownloader::Model;

#ifdef Q_OS_MACOS
const QString kLaunchAtLoginTitle = QStringLiteral("Iniciar com o Mac");
const QString kLaunchAtLoginFailure = QStringLiteral("Falha ao alternar início com o Mac: ");
const QString kWhisperMissingText
    = QStringLiteral("O whisper-cli não foi encontrado no bundle nem no sistema. Reinstale o Voxaria ou rode: brew install whisper-cpp");
#else
const QString kLaunchAtLoginTitle = QStringLiteral("Iniciar com o sistema");
const QString kLaunchAtLoginFailure = QStringLiteral("Falha ao alternar início com o sistema: ");
const QString kWhisperMissingText
    = QStringLiteral("O whisper-cli não foi encontrado junto do Voxaria nem no sistema. "
                     "Instale o whisper.cpp da sua distribuição (por exemplo: sudo apt install whisper.cpp).");
#endif

QString sizeText(const Model& model)
{
    return QString::number(model.sizeMB);
}

// The button that accepts a proposed model, in the start-up offer and in the engine menu alike.
Alerts::Button downloadNowButton(const Model& model)
{
    return {QStringLiteral("Baixar agora (") + sizeText(model) + QStringLiteral(" MB)")};
}

const Alerts::Button& cancelButton()
{
    static const Alerts::Button button{QStringLiteral("Cancelar"), Alerts::Button::Role::cancel};
    return button;
}

// Every download the user asks for ends the same way: a model that arrived is meant to be used, so
// its engine is selected; whatever the outcome, whoever shows the models hears of it.
void downloadSelectingItsEngine(ModelDownloader& downloader, Settings& settings, const Model& model, std::function<void()> onDownloadEnded)
{
    const TranscriptionEngineKind engine = model.isLiveSpeech() ? TranscriptionEngineKind::apple : TranscriptionEngineKind::whisper;
    downloader.download(model, [&settings, engine, onDownloadEnded = std::move(onDownloadEnded)](bool success) {
        if (success)
            settings.setEngine(engine);
        onDownloadEnded();
    });
}

// An installed model other than `removed`, to be used in its place.
const Model* replacementFor(const Model& removed)
{
    const QList<Model>& catalog = Model::catalog();
    const auto other = std::find_if(
        catalog.begin(), catalog.end(), [&](const Model& model) { return model.fileName != removed.fileName && model.isDownloaded(); });
    return other != catalog.end() ? &*other : nullptr;
}

// Said before the selected model goes: what dictation will use instead.
QString selectedRemovalWarning(const Model& removed, const QString& selectedModel)
{
    if (removed.fileName != selectedModel)
        return {};
    const Model* next = replacementFor(removed);
    return next ? QStringLiteral("\n\nÉ o modelo em uso: os ditados passam a usar \"%1\".").arg(next->displayName)
                : QStringLiteral("\n\nÉ o modelo em uso, e nenhum outro está baixado: o Whisper fica indisponível até que um modelo seja "
                                 "baixado.");
}

// The selected model's file gone, another installed one takes its place (and the menu's mark).
void removeModel(const Model& model, Settings& settings)
{
    const bool wasSelected = model.fileName == settings.whisperModelFileName();
    QFile::remove(model.filePath());
    const Model* next = replacementFor(model);
    if (wasSelected && next) {
        settings.setWhisperModelFileName(next->fileName);
        qCInfo(lcWhisper) << "removed the selected model; now using" << next->fileName;
    }
}

// The models the menu offers: Whisper's, then the live native engine's.
QList<Model> offeredModels()
{
    return Model::catalog() + QList<Model>{Model::liveSpeech()};
}

// What choosing an engine whose model is missing proposes, `need` leading to the model's name:
// "Baixar agora" starts its download.
Alerts::Alert engineModelOffer(const QString& title, const QString& need, const Model& model)
{
    return {title,
        need + model.displayName + QStringLiteral(" (") + sizeText(model) + QStringLiteral(" MB, download único, roda offline)."),
        {downloadNowButton(model), cancelButton()}};
}

// One item of a submenu or a toggle: checkable, so the chosen one carries the mark.
QAction* addChoice(QMenu& menu, const QString& title, bool checked)
{
    QAction* item = menu.addAction(title);
    item->setCheckable(true);
    item->setChecked(checked);
    return item;
}

// What a dictation is asked for, as the user's preferences stand now.
DictationOptions dictationOptions(const Settings& settings)
{
    return {settings.localeIdentifier(), settings.whisperModelFileName(), settings.preferOnDevice()};
}

}

AppDelegate::AppDelegate(
    SessionPlatform& platform, PlatformServices services, Settings& settings, ModelDownloader& downloader, QObject* parent)
    : QObject(parent)
    , m_platform(platform)
    , m_services(std::move(services))
    , m_settings(settings)
    , m_downloader(downloader)
    , m_updater(UpdaterManager::Channel::fromBuild(), m_services.alerts, m_services.urlOpener)
    , m_checks(Permissions::Checks::system(platform))
    , m_hotkeyManager(platform.takeKeyMonitor(), [&settings] { return settings.hotKey(); })
    , m_dictation(dictationCollaborators())
{
    // The model menu changes as a download starts and ends: its unfinished part is not offered for
    // removal while it runs.
    connect(&m_downloader, &ModelDownloader::downloadingChanged, this, &AppDelegate::refreshMenu, Qt::QueuedConnection);
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
    // Never stopped: the key is watched for as long as the program runs (started again, not stopped,
    // when the menu chooses another key).
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
    maybeOfferModelDownload(*m_services.alerts, m_downloader, m_settings, refreshMenuLater());
}

void AppDelegate::maybeOfferModelDownload(
    Alerts& alerts, ModelDownloader& downloader, Settings& settings, std::function<void()> onDownloadEnded)
{
    if (!WhisperTranscriber::binaryURL() || WhisperTranscriber::modelURL(settings.whisperModelFileName()) || downloader.isDownloading())
        return;
    const Model& model = Model::recommended();
#ifdef Q_OS_MACOS
    const QString runsWhere = QStringLiteral("). Ele roda 100% no seu Mac, offline, e tem qualidade de transcrição superior.");
    const QString meanwhile
        = QStringLiteral("Enquanto isso, o motor nativo da Apple já funciona normalmente. Outros tamanhos de modelo ficam no menu, em ");
#else
    const QString runsWhere = QStringLiteral("). Ele roda 100% no seu computador, offline, e tem qualidade de transcrição superior.");
    const QString meanwhile
        = QStringLiteral("O motor nativo (Nemotron, texto ao vivo enquanto você fala) também precisa de um modelo, que fica no mesmo menu. "
                         "Outros tamanhos de modelo ficam no menu, em ");
#endif
    const Alerts::Alert offer{
        QStringLiteral("Instalar o motor de transcrição de alta qualidade?"),
        QStringLiteral("O Voxaria pode baixar o modelo Whisper \"") + model.displayName + QStringLiteral("\" (") + sizeText(model)
            + QStringLiteral(" MB, download único, ") + model.note + runsWhere + QStringLiteral("\n\n") + meanwhile
            + QStringLiteral("\"Modelo Whisper\"."),
        {downloadNowButton(model), {QStringLiteral("Agora não"), Alerts::Button::Role::cancel}},
    };
    // Nothing remembers a "not now": the offer comes again at the next launch.
    if (alerts.runModal(offer) == 0)
        downloadSelectingItsEngine(downloader, settings, model, std::move(onDownloadEnded));
}

void AppDelegate::maybeWarnNoKeySource()
{
    if (const std::optional<Alerts::Alert> warning = Permissions::noKeySourceAlert(m_platform.session(), m_platform.keySource()))
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
    m_statusItem->setIcon(m_statusIcons.at(size_t(tint)));
}

QMenu* AppDelegate::menu()
{
    if (!m_menu)
        refreshMenu();
    return m_menu.get();
}

std::unique_ptr<QMenu> AppDelegate::buildMenu()
{
    auto menu = std::make_unique<QMenu>();
    const Settings& settings = m_settings;
    menu->addAction(QStringLiteral("Segure ") + settings.hotKey().label() + QStringLiteral(" para ditar"))->setEnabled(false);
    // Where the desktop holds a chord for the key (KDE's US layout, GNOME's portal), the user learns it here.
    if (const QString chord = m_platform.keySource().chord; !chord.isEmpty())
        menu->addAction(QStringLiteral("ou segure ") + chord + QStringLiteral(" (atalho do sistema)"))->setEnabled(false);
    menu->addSeparator();
    whenChosen(menu->addAction(QStringLiteral("Transcrever vídeo ou link…")), [this] { openVideoTranscription(); });
    whenChosen(menu->addAction(QStringLiteral("Histórico de ditados…"), QKeySequence(QStringLiteral("Ctrl+H"))), [this] { openHistory(); });
    menu->addSeparator();
    addEngineMenu(*menu);
    addModelMenu(*menu);
    addHotkeyMenu(*menu);
    addLanguageMenu(*menu);
    whenChosen(
        addChoice(*menu, QStringLiteral("Preferir transcrição local (offline)"), settings.preferOnDevice()), [this] { toggleOnDevice(); });
    whenChosen(addChoice(*menu, QStringLiteral("Sons de feedback"), settings.playSounds()), [this] { toggleSounds(); });
    menu->addSeparator();
    whenChosen(addChoice(*menu, kLaunchAtLoginTitle, m_services.loginItem->status() == LoginItem::Status::enabled),
        [this] { toggleLaunchAtLogin(); });
    whenChosen(menu->addAction(QStringLiteral("Verificar permissões…")), [this] { openPermissions(); });
    whenChosen(menu->addAction(QStringLiteral("Verificar atualizações… (v") + UpdaterManager::version() + QStringLiteral(")")),
        [this] { checkForUpdates(); });
    menu->addSeparator();
    // Not one of ours: it goes straight to the application.
    QAction* quit = menu->addAction(QStringLiteral("Sair do Voxaria"));
    quit->setShortcut(QKeySequence(QStringLiteral("Ctrl+Q")));
    connect(quit, &QAction::triggered, qApp, &QApplication::quit, Qt::QueuedConnection);
    // The log follows what the user opens, for bug reports and for the tests that drive the menu.
    QList<QMenu*> menus = menu->findChildren<QMenu*>();
    menus.append(menu.get());
    for (QMenu* shown : menus)
        connect(shown, &QMenu::aboutToShow, this, [] { qCDebug(lcApp) << "menu shown"; });
    return menu;
}

void AppDelegate::addEngineMenu(QMenu& menu)
{
    QMenu* engines = menu.addMenu(QStringLiteral("Motor de transcrição"));
    const TranscriptionEngineKind chosen = m_settings.engine();
    const bool whisperAvailable = WhisperTranscriber::isAvailable(m_settings.whisperModelFileName());
    for (TranscriptionEngineKind kind : TranscriptionEngineKind::allCases()) {
        QString title = kind.label();
        // Still selectable: choosing it explains what is missing.
        if (kind == TranscriptionEngineKind::whisper && !whisperAvailable)
            title += QStringLiteral(" — indisponível");
        whenChosen(addChoice(*engines, title, kind == chosen), [this, raw = kind.rawValue()] { selectEngine(raw); });
    }
}

void AppDelegate::addModelMenu(QMenu& menu)
{
    QMenu* models = menu.addMenu(QStringLiteral("Modelo Whisper"));
    models->setToolTipsVisible(true);
    const QString selected = m_settings.whisperModelFileName();
    for (const Model& model : offeredModels()) {
        const bool downloaded = model.isDownloaded();
        QString title = model.displayName + QStringLiteral(" (") + sizeText(model) + QStringLiteral(" MB)");
        if (!downloaded)
            title += QStringLiteral(" — baixar");
        // The live engine's only model stands apart, marked whenever it is installed.
        if (model.isLiveSpeech())
            models->addSeparator();
        // A selected model whose file is gone carries no mark: it is not what dictation would use.
        QAction* item = addChoice(*models, title, downloaded && (model.isLiveSpeech() || model.fileName == selected));
        item->setToolTip(model.note);
        whenChosen(item, [this, file = model.fileName] { selectModel(file); });
    }
    addRemovalItems(*models);
}

// What the models take on disk can be taken back: an installed model, and an unfinished download
// other than the one running (asked again when chosen: the menu may be older than the download).
void AppDelegate::addRemovalItems(QMenu& models)
{
    bool separated = false;
    for (const Model& model : offeredModels()) {
        const QString name = model.displayName.section(QStringLiteral(" — "), -1);
        const bool running = m_downloader.isDownloading() && m_downloader.currentModel().fileName == model.fileName;
        ModelDownloader* downloader = &m_downloader;
        Settings* settings = &m_settings;
        const struct {
            QString path, label, warning;
            std::function<void()> remove;
        } files[] = {
            {model.filePath(), QStringLiteral("Remover %1 (%2 MB)"), selectedRemovalWarning(model, m_settings.whisperModelFileName()),
                [settings, model] { removeModel(model, *settings); }},
            {running ? QString() : model.partPath(), QStringLiteral("Remover download incompleto de %1 (%2 MB)"), {},
                [downloader, model] { downloader->removeUnfinished(model); }},
        };
        for (const auto& file : files) {
            const QFileInfo info(file.path);
            if (file.path.isEmpty() || !info.exists())
                continue;
            if (!std::exchange(separated, true))
                models.addSeparator();
            const QString title = file.label.arg(name).arg((info.size() + (1 << 19)) >> 20);
            whenChosen(models.addAction(title),
                [this, title, warning = file.warning, remove = file.remove] { confirmRemoval(title, warning, remove); });
        }
    }
}

void AppDelegate::confirmRemoval(const QString& title, const QString& warning, const std::function<void()>& remove)
{
    const Alerts::Alert question{title + QStringLiteral("?"),
        QStringLiteral("O arquivo é apagado do disco; para usá-lo de novo, é preciso baixá-lo.") + warning,
        {{QStringLiteral("Remover"), Alerts::Button::Role::destructive}, cancelButton()}};
    if (m_services.alerts->runModal(question) != 0)
        return;
    remove();
    refreshMenu();
}

void AppDelegate::addHotkeyMenu(QMenu& menu)
{
    QMenu* keys = menu.addMenu(QStringLiteral("Tecla de ditado"));
    const HotKey chosen = m_settings.hotKey();
    for (HotKey key : HotKey::allCases()) {
        whenChosen(addChoice(*keys, key.label(), key == chosen), [this, raw = key.rawValue()] { selectHotkey(raw); });
    }
}

void AppDelegate::addLanguageMenu(QMenu& menu)
{
    QMenu* languages = menu.addMenu(QStringLiteral("Idioma"));
    // An identifier not in the list is kept as it is and simply marks nothing.
    const QString chosen = m_settings.localeIdentifier();
    for (const LanguageOption& language : LanguageOption::all()) {
        whenChosen(addChoice(*languages, language.label, language.id == chosen), [this, id = language.id] { selectLanguage(id); });
    }
}

void AppDelegate::whenChosen(QAction* item, std::function<void()> action)
{
    // The action runs once the menu has closed and the click is over, so an alert it shows, or the
    // menu it replaces, never runs inside the menu's own event handling.
    if (!item->isCheckable()) {
        connect(item, &QAction::triggered, this, std::move(action), Qt::QueuedConnection);
        return;
    }
    // The click has already moved the mark. A choice refused, cancelled or ignored leaves the
    // setting as it was, so the menu is rebuilt from the settings unless the action already did.
    connect(
        item, &QAction::triggered, this,
        [this, action = std::move(action)] {
            const QMenu* shown = m_menu.get();
            action();
            if (m_menu.get() == shown)
                refreshMenu();
        },
        Qt::QueuedConnection);
}

void AppDelegate::refreshMenu()
{
    // The menu is never edited in place: a fresh one replaces it after every change. The old one
    // goes once the event loop is back, as it may be the very menu whose click got us here.
    std::unique_ptr<QMenu> fresh = buildMenu();
    if (m_statusItem)
        m_statusItem->setContextMenu(fresh.get());
    if (m_menu)
        m_menu.release()->deleteLater();
    m_menu = std::move(fresh);
}

std::function<void()> AppDelegate::refreshMenuLater()
{
    return [weakSelf = QPointer<AppDelegate>(this)] {
        if (weakSelf)
            weakSelf->refreshMenu();
    };
}

void AppDelegate::download(const Model& model)
{
    downloadSelectingItsEngine(m_downloader, m_settings, model, refreshMenuLater());
}

void AppDelegate::selectEngine(const QString& rawValue)
{
    const std::optional<TranscriptionEngineKind> kind = TranscriptionEngineKind::fromRawValue(rawValue);
    if (!kind)
        return;
    const bool ready = *kind == TranscriptionEngineKind::apple ? Model::liveSpeech().isDownloaded()
                                                               : WhisperTranscriber::isAvailable(m_settings.whisperModelFileName());
    if (ready) {
        m_settings.setEngine(*kind);
        prepareLiveEngine();
        refreshMenu();
        return;
    }
    // The native engine is wanted but has no model yet: offer it and leave the choice as it was.
    if (*kind == TranscriptionEngineKind::apple) {
        if (m_services.alerts->runModal(engineModelOffer(QStringLiteral("Baixar o modelo do motor nativo?"),
                QStringLiteral("O motor nativo precisa do modelo "), Model::liveSpeech()))
            == 0)
            download(Model::liveSpeech());
        return;
    }
    // Whisper is wanted but cannot run yet: say what is missing and leave the choice as it was.
    if (!WhisperTranscriber::binaryURL()) {
        m_services.alerts->runModal({QStringLiteral("Whisper indisponível"), kWhisperMissingText, {}});
        return;
    }
    const Model& model = Model::recommended();
    if (m_services.alerts->runModal(engineModelOffer(
            QStringLiteral("Baixar o modelo Whisper?"), QStringLiteral("O motor Whisper precisa de um modelo. Recomendado: "), model))
        == 0)
        download(model);
}

void AppDelegate::selectModel(const QString& fileName)
{
    const QList<Model> offered = offeredModels();
    const auto model = std::find_if(offered.begin(), offered.end(), [&](const Model& m) { return m.fileName == fileName; });
    if (model == offered.end())
        return;
    if (model->isDownloaded()) {
        // The live engine's model is the only one of its kind: there is nothing to select.
        if (!model->isLiveSpeech())
            m_settings.setWhisperModelFileName(model->fileName);
        refreshMenu();
        return;
    }
    if (m_downloader.isDownloading())
        return;
    const QString size = sizeText(*model);
    const Alerts::Alert offer{
        QStringLiteral("Baixar \"") + model->displayName + QStringLiteral("\"?"),
        QStringLiteral("Download único de ") + size + QStringLiteral(" MB (") + model->note
            + QStringLiteral("). O modelo roda 100% offline."),
        {{QStringLiteral("Baixar (") + size + QStringLiteral(" MB)")}, cancelButton()},
    };
    if (m_services.alerts->runModal(offer) == 0)
        download(*model);
}

void AppDelegate::selectHotkey(const QString& rawValue)
{
    if (const std::optional<HotKey> key = HotKey::fromRawValue(rawValue)) {
        m_settings.setHotKey(*key);
        // A key source that binds the key itself (KDE's global shortcuts) binds the new one.
        m_hotkeyManager.start();
        refreshMenu();
    }
}

void AppDelegate::selectLanguage(const QString& identifier)
{
    m_settings.setLocaleIdentifier(identifier);
    refreshMenu();
}

void AppDelegate::toggleOnDevice()
{
    m_settings.setPreferOnDevice(!m_settings.preferOnDevice());
    refreshMenu();
}

void AppDelegate::toggleSounds()
{
    m_settings.setPlaySounds(!m_settings.playSounds());
    refreshMenu();
}

void AppDelegate::openHistory()
{
    if (!m_history)
        m_history = std::make_unique<HistoryWindow>(HistoryStore::shared(), *m_services.alerts, m_platform.pasteboard());
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

void AppDelegate::toggleLaunchAtLogin()
{
    LoginItem& item = *m_services.loginItem;
    // A registration waiting for the user's approval counts as off: registering again is the way on.
    const std::optional<QString> failure = item.status() == LoginItem::Status::enabled ? item.unregisterItem() : item.registerItem();
    if (failure)
        qCWarning(lcApp).noquote() << kLaunchAtLoginFailure + *failure;
    refreshMenu();
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
