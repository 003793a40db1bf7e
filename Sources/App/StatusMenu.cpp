#include "StatusMenu.h"

#include "Engines/WhisperTranscriber.h"
#include "LanguageOption.h"
#include "Shared/Logging.h"
#include "UpdaterManager.h"

#include <QApplication>
#include <QFile>
#include <QFileInfo>
#include <QMenu>
#include <QPointer>

#include <algorithm>
#include <utility>

namespace {

using Model = ModelDownloader::Model;

const QString kLaunchAtLoginTitle = QStringLiteral("Iniciar com o sistema");
const QString kLaunchAtLoginFailure = QStringLiteral("Falha ao alternar início com o sistema: ");
const QString kWhisperMissingText
    = QStringLiteral("O whisper-cli não foi encontrado junto do Voxaria nem no sistema. "
                     "Instale o whisper.cpp da sua distribuição (por exemplo: sudo apt install whisper.cpp).");

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

}

StatusMenu::StatusMenu(const SessionPlatform& platform, Settings& settings, ModelDownloader& downloader, Alerts& alerts,
    LoginItem& loginItem, Commands commands, QObject* parent)
    : QObject(parent)
    , m_platform(platform)
    , m_settings(settings)
    , m_downloader(downloader)
    , m_alerts(alerts)
    , m_loginItem(loginItem)
    , m_commands(std::move(commands))
{
    // The model menu changes as a download starts and ends: its unfinished part is not offered for
    // removal while it runs.
    connect(&m_downloader, &ModelDownloader::downloadingChanged, this, &StatusMenu::refresh, Qt::QueuedConnection);
}

StatusMenu::~StatusMenu() = default;

void StatusMenu::maybeOfferModelDownload(
    Alerts& alerts, ModelDownloader& downloader, Settings& settings, std::function<void()> onDownloadEnded)
{
    if (!WhisperTranscriber::binaryURL() || WhisperTranscriber::modelURL(settings.whisperModelFileName()) || downloader.isDownloading())
        return;
    const Model& model = Model::recommended();
    const QString runsWhere = QStringLiteral("). Ele roda 100% no seu computador, offline, e tem qualidade de transcrição superior.");
    const QString meanwhile
        = QStringLiteral("O motor nativo (Nemotron, texto ao vivo enquanto você fala) também precisa de um modelo, que fica no mesmo menu. "
                         "Outros tamanhos de modelo ficam no menu, em ");
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

QMenu* StatusMenu::menu()
{
    if (!m_menu)
        refresh();
    return m_menu.get();
}

std::unique_ptr<QMenu> StatusMenu::build()
{
    auto menu = std::make_unique<QMenu>();
    const Settings& settings = m_settings;
    menu->addAction(QStringLiteral("Segure ") + settings.hotKey().label() + QStringLiteral(" para ditar"))->setEnabled(false);
    // Where the desktop holds a chord for the key (KDE's US layout, GNOME's portal), the user learns it here.
    if (const QString chord = m_platform.keySource().chord; !chord.isEmpty())
        menu->addAction(QStringLiteral("ou segure ") + chord + QStringLiteral(" (atalho do sistema)"))->setEnabled(false);
    menu->addSeparator();
    whenChosen(menu->addAction(QStringLiteral("Transcrever vídeo ou link…")), m_commands.openVideoTranscription);
    whenChosen(menu->addAction(QStringLiteral("Histórico de ditados…"), QKeySequence(QStringLiteral("Ctrl+H"))), m_commands.openHistory);
    menu->addSeparator();
    addEngineMenu(*menu);
    addModelMenu(*menu);
    addHotkeyMenu(*menu);
    addLanguageMenu(*menu);
    whenChosen(
        addChoice(*menu, QStringLiteral("Preferir transcrição local (offline)"), settings.preferOnDevice()), [this] { toggleOnDevice(); });
    whenChosen(addChoice(*menu, QStringLiteral("Sons de feedback"), settings.playSounds()), [this] { toggleSounds(); });
    menu->addSeparator();
    whenChosen(
        addChoice(*menu, kLaunchAtLoginTitle, m_loginItem.status() == LoginItem::Status::enabled), [this] { toggleLaunchAtLogin(); });
    whenChosen(menu->addAction(QStringLiteral("Verificar permissões…")), m_commands.openPermissions);
    whenChosen(menu->addAction(QStringLiteral("Verificar atualizações… (v") + UpdaterManager::version() + QStringLiteral(")")),
        m_commands.checkForUpdates);
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

void StatusMenu::addEngineMenu(QMenu& menu)
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

void StatusMenu::addModelMenu(QMenu& menu)
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
void StatusMenu::addRemovalItems(QMenu& models)
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

void StatusMenu::confirmRemoval(const QString& title, const QString& warning, const std::function<void()>& remove)
{
    const Alerts::Alert question{title + QStringLiteral("?"),
        QStringLiteral("O arquivo é apagado do disco; para usá-lo de novo, é preciso baixá-lo.") + warning,
        {{QStringLiteral("Remover"), Alerts::Button::Role::destructive}, cancelButton()}};
    if (m_alerts.runModal(question) != 0)
        return;
    remove();
    refresh();
}

void StatusMenu::addHotkeyMenu(QMenu& menu)
{
    QMenu* keys = menu.addMenu(QStringLiteral("Tecla de ditado"));
    const HotKey chosen = m_settings.hotKey();
    for (HotKey key : HotKey::allCases()) {
        whenChosen(addChoice(*keys, key.label(), key == chosen), [this, raw = key.rawValue()] { selectHotkey(raw); });
    }
}

void StatusMenu::addLanguageMenu(QMenu& menu)
{
    QMenu* languages = menu.addMenu(QStringLiteral("Idioma"));
    // An identifier not in the list is kept as it is and simply marks nothing.
    const QString chosen = m_settings.localeIdentifier();
    for (const LanguageOption& language : LanguageOption::all()) {
        whenChosen(addChoice(*languages, language.label, language.id == chosen), [this, id = language.id] { selectLanguage(id); });
    }
}

void StatusMenu::whenChosen(QAction* item, std::function<void()> action)
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
                refresh();
        },
        Qt::QueuedConnection);
}

void StatusMenu::refresh()
{
    // The menu is never edited in place: a fresh one replaces it after every change. The old one
    // goes once the event loop is back, as it may be the very menu whose click got us here.
    std::unique_ptr<QMenu> fresh = build();
    emit replaced(fresh.get());
    if (m_menu)
        m_menu.release()->deleteLater();
    m_menu = std::move(fresh);
}

std::function<void()> StatusMenu::refreshLater()
{
    return [weakSelf = QPointer<StatusMenu>(this)] {
        if (weakSelf)
            weakSelf->refresh();
    };
}

void StatusMenu::download(const Model& model)
{
    downloadSelectingItsEngine(m_downloader, m_settings, model, refreshLater());
}

void StatusMenu::selectEngine(const QString& rawValue)
{
    const std::optional<TranscriptionEngineKind> kind = TranscriptionEngineKind::fromRawValue(rawValue);
    if (!kind)
        return;
    const bool ready = *kind == TranscriptionEngineKind::apple ? Model::liveSpeech().isDownloaded()
                                                               : WhisperTranscriber::isAvailable(m_settings.whisperModelFileName());
    if (ready) {
        m_settings.setEngine(*kind);
        m_commands.engineChosen();
        refresh();
        return;
    }
    // The native engine is wanted but has no model yet: offer it and leave the choice as it was.
    if (*kind == TranscriptionEngineKind::apple) {
        if (m_alerts.runModal(engineModelOffer(QStringLiteral("Baixar o modelo do motor nativo?"),
                QStringLiteral("O motor nativo precisa do modelo "), Model::liveSpeech()))
            == 0)
            download(Model::liveSpeech());
        return;
    }
    // Whisper is wanted but cannot run yet: say what is missing and leave the choice as it was.
    if (!WhisperTranscriber::binaryURL()) {
        m_alerts.runModal({QStringLiteral("Whisper indisponível"), kWhisperMissingText, {}});
        return;
    }
    const Model& model = Model::recommended();
    if (m_alerts.runModal(engineModelOffer(
            QStringLiteral("Baixar o modelo Whisper?"), QStringLiteral("O motor Whisper precisa de um modelo. Recomendado: "), model))
        == 0)
        download(model);
}

void StatusMenu::selectModel(const QString& fileName)
{
    const QList<Model> offered = offeredModels();
    const auto model = std::find_if(offered.begin(), offered.end(), [&](const Model& m) { return m.fileName == fileName; });
    if (model == offered.end())
        return;
    if (model->isDownloaded()) {
        // The live engine's model is the only one of its kind: there is nothing to select.
        if (!model->isLiveSpeech())
            m_settings.setWhisperModelFileName(model->fileName);
        refresh();
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
    if (m_alerts.runModal(offer) == 0)
        download(*model);
}

void StatusMenu::selectHotkey(const QString& rawValue)
{
    if (const std::optional<HotKey> key = HotKey::fromRawValue(rawValue)) {
        m_settings.setHotKey(*key);
        // A key source that binds the key itself (KDE's global shortcuts) binds the new one.
        m_commands.hotKeyChosen();
        refresh();
    }
}

void StatusMenu::selectLanguage(const QString& identifier)
{
    m_settings.setLocaleIdentifier(identifier);
    refresh();
}

void StatusMenu::toggleOnDevice()
{
    m_settings.setPreferOnDevice(!m_settings.preferOnDevice());
    refresh();
}

void StatusMenu::toggleSounds()
{
    m_settings.setPlaySounds(!m_settings.playSounds());
    refresh();
}

void StatusMenu::toggleLaunchAtLogin()
{
    LoginItem& item = m_loginItem;
    // A registration waiting for the user's approval counts as off: registering again is the way on.
    const std::optional<QString> failure = item.status() == LoginItem::Status::enabled ? item.unregisterItem() : item.registerItem();
    if (failure)
        qCWarning(lcApp).noquote() << kLaunchAtLoginFailure + *failure;
    refresh();
}
