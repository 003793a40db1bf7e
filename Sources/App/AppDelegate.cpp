#include "AppDelegate.h"

#include "Engines/ModelDownloader.h"
#include "Engines/WhisperTranscriber.h"
#include "History/HistoryWindow.h"
#include "Platform/Alerts.h"
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
    maybeOfferModelDownload();
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

void AppDelegate::maybeOfferModelDownload()
{
    QPointer<AppDelegate> weakSelf(this);
    maybeOfferModelDownload(*Alerts::makeDefault(), ModelDownloader::shared(), [weakSelf] {
        if (weakSelf)
            weakSelf->refreshMenu();
    });
}

void AppDelegate::maybeOfferModelDownload(Alerts& alerts, ModelDownloader& downloader, std::function<void()> onDownloadEnded)
{
    if (!WhisperTranscriber::binaryURL() || WhisperTranscriber::modelURL() || downloader.isDownloading())
        return;
    const ModelDownloader::Model& model = ModelDownloader::Model::recommended();
#ifdef Q_OS_MACOS
    const QString runsWhere = QStringLiteral("). Ele roda 100% no seu Mac, offline, e tem qualidade de transcrição superior.");
    const QString meanwhile = QStringLiteral("Enquanto isso, o motor nativo da Apple já funciona normalmente. Outros tamanhos de modelo ficam no menu, em ");
#else
    const QString runsWhere = QStringLiteral("). Ele roda 100% no seu computador, offline, e tem qualidade de transcrição superior.");
    const QString meanwhile = QStringLiteral("Enquanto isso, o motor nativo (PocketSphinx) funciona nos idiomas que tiverem modelo instalado. "
                                             "Outros tamanhos de modelo ficam no menu, em ");
#endif
    const QString size = QString::number(model.sizeMB);
    const Alerts::Alert offer{
        QStringLiteral("Instalar o motor de transcrição de alta qualidade?"),
        QStringLiteral("O Voxaria pode baixar o modelo Whisper \"") + model.displayName + QStringLiteral("\" (") + size
            + QStringLiteral(" MB, download único, ") + model.note + runsWhere + QStringLiteral("\n\n") + meanwhile
            + QStringLiteral("\"Modelo Whisper\"."),
        {{QStringLiteral("Baixar agora (") + size + QStringLiteral(" MB)")}, {QStringLiteral("Agora não"), Alerts::Button::Role::cancel}},
    };
    // Nothing remembers a "not now": the offer comes again at the next launch.
    if (alerts.runModal(offer) != 0)
        return;
    downloader.download(model, [onDownloadEnded = std::move(onDownloadEnded)](bool success) {
        if (success)
            Settings::shared().setEngine(TranscriptionEngineKind::whisper);
        onDownloadEnded();
    });
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
