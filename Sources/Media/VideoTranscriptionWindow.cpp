#include "VideoTranscriptionWindow.h"

#include "Engines/WhisperTranscriber.h"
#include "MediaTranscriberError.h"
#include "Platform/Alerts.h"
#include "Platform/FileDialogs.h"
#include "Platform/Pasteboard.h"
#include "Platform/Sounds.h"
#include "Shared/Logging.h"
#include "UI/SystemFont.h"
#include "UI/WindowPlacement.h"
#include "YtDlpManager.h"

#include <QCoreApplication>
#include <QDir>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSaveFile>
#include <QShortcut>
#include <QTextBoundaryFinder>
#include <QToolButton>
#include <QVBoxLayout>

namespace {

// The bar's steps in determinate mode: fine enough that every whole percent moves it.
constexpr int kProgressSteps = 1000;

const FileDialogs::Filter kMediaFilter{QStringLiteral("Vídeo ou áudio"), {QStringLiteral("video/*"), QStringLiteral("audio/*")}};
const FileDialogs::Filter kTextFilter{QStringLiteral("Texto"), {QStringLiteral("text/plain")}};
const FileDialogs::Filter kSubtitleFilter{QStringLiteral("Legendas SubRip"), {QStringLiteral("application/x-subrip")}};

// What the user reads as characters: an emoji or a letter with its combining accents counts once.
qsizetype characterCount(const QString& text)
{
    QTextBoundaryFinder boundaries(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (boundaries.toNextBoundary() != -1)
        ++count;
    return count;
}

bool isLink(const QString& text)
{
    return text.startsWith(QStringLiteral("http://")) || text.startsWith(QStringLiteral("https://"));
}

// A path as a Linux user gives it: "~/…" is in the home folder, and a file copied in a file
// manager pastes as a "file://" address.
QString localPath(const QString& text)
{
    if (text.startsWith(QStringLiteral("file://")))
        return QUrl(text).toLocalFile();
    if (text == u'~' || text.startsWith(QStringLiteral("~/")))
        return QDir::homePath() + text.mid(1);
    return text;
}

// What a drop brings to the field: the first local file among the dragged items, or else a link
// dragged from a browser (as an address or as plain text).
std::optional<QString> droppedSource(const QMimeData* data)
{
    if (!data)
        return std::nullopt;
    const QList<QUrl> urls = data->hasUrls() ? data->urls() : QList<QUrl>();
    for (const QUrl& url : urls) {
        if (url.isLocalFile())
            return QDir::toNativeSeparators(url.toLocalFile());
    }
    for (const QUrl& url : urls) {
        if (isLink(url.toString()))
            return url.toString();
    }
    if (const QString text = data->text().trimmed(); isLink(text) && !text.contains(u'\n'))
        return text;
    return std::nullopt;
}

// Replaces the file in one rename, so a failure leaves what was there untouched. Failures are only
// logged: saving reports nothing to the user.
void writeAtomically(const QString& path, const QByteArray& bytes)
{
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size() && file.commit())
        return;
    qCWarning(lcMedia) << "could not save" << path << ":" << file.errorString();
}

QPushButton* makeButton(const QString& title, const char* name)
{
    auto* button = new QPushButton(title);
    button->setObjectName(QLatin1String(name));
    return button;
}

}

VideoTranscriptionWindow::VideoTranscriptionWindow(Services services, QObject* parent)
    : QObject(parent)
    , m_services(std::move(services))
{
    if (!m_services.ytDlpPath)
        m_services.ytDlpPath = &YtDlpManager::binaryURL;
    if (m_services.ytDlpSource.isEmpty())
        m_services.ytDlpSource = YtDlpManager::downloadURL();
    // Quitting with the window open leaves no subtitle file behind.
    if (QCoreApplication* app = QCoreApplication::instance())
        connect(app, &QCoreApplication::aboutToQuit, this, &VideoTranscriptionWindow::discardLastSrt);
}

VideoTranscriptionWindow::~VideoTranscriptionWindow()
{
    discardLastSrt();
}

void VideoTranscriptionWindow::show()
{
    if (!m_window)
        build();
    m_window->show();
    m_window->raise();
    m_window->activateWindow();
}

void VideoTranscriptionWindow::build()
{
    m_window = std::make_unique<QWidget>();
    m_window->setObjectName(QStringLiteral("videoTranscriptionWindow"));
    m_window->setWindowTitle(QStringLiteral("Transcrever vídeo ou link"));
    // Maximizable: a long transcript reads better on the whole screen.
    m_window->setWindowFlags(
        Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowCloseButtonHint | Qt::WindowMinMaxButtonsHint);

    m_progressBar = new QProgressBar;
    m_progressBar->setObjectName(QStringLiteral("progressBar"));
    m_progressBar->setRange(0, 0);
    m_progressBar->setTextVisible(false);
    m_progressBar->hide();

    m_statusLabel = new QLabel;
    m_statusLabel->setObjectName(QStringLiteral("statusLabel"));
    m_statusLabel->setFont(systemFont(11, QFont::Normal));
    // Secondary, but a warning must stay readable: the text colour faded, not the pale placeholder grey.
    QPalette palette = m_statusLabel->palette();
    QColor secondary = palette.color(QPalette::WindowText);
    secondary.setAlphaF(0.7);
    palette.setColor(QPalette::WindowText, secondary);
    m_statusLabel->setPalette(palette);
    // A long message (a path, a program's complaint) wraps instead of widening the window.
    m_statusLabel->setWordWrap(true);
    m_statusLabel->setTextInteractionFlags(Qt::TextSelectableByMouse);
    // Room for one line even while empty, so the view below does not jump when a status comes.
    m_statusLabel->setMinimumHeight(QFontMetrics(m_statusLabel->font()).height());

    m_resultView = new QPlainTextEdit;
    m_resultView->setObjectName(QStringLiteral("resultView"));
    m_resultView->setReadOnly(true);
    m_resultView->setFont(systemFont(13, QFont::Normal));
    m_resultView->document()->setDocumentMargin(8);
    m_resultView->setLineWrapMode(QPlainTextEdit::WidgetWidth);
    m_resultView->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
    // Nothing to type here, so Tab moves on to the buttons below.
    m_resultView->setTabChangesFocus(true);
    m_resultView->setFrameStyle(QFrame::StyledPanel | QFrame::Sunken);
    m_resultView->setMinimumHeight(260);

    auto* column = new QVBoxLayout(m_window.get());
    column->setContentsMargins(16, 16, 16, 16);
    column->setSpacing(10);
    column->addWidget(buildInputRow());
    column->addWidget(m_progressBar);
    column->addWidget(buildStatusRow());
    column->addWidget(m_detailsView);
    column->addWidget(m_resultView, 1);
    column->addWidget(buildResultRow());

    // Return starts a job from anywhere in the window, as the default button does.
    for (const QKeySequence& key : {QKeySequence(Qt::Key_Return), QKeySequence(Qt::Key_Enter)}) {
        connect(new QShortcut(key, m_window.get()), &QShortcut::activated, this, [this] {
            if (m_transcribeButton->isEnabled())
                startTranscription();
        });
    }
    // Ctrl+W closes it, as it closes windows elsewhere on the desktop.
    connect(new QShortcut(QKeySequence::Close, m_window.get()), &QShortcut::activated, m_window.get(), &QWidget::close);
    // A file or a link dropped anywhere on the window, the field or the result replaces the field's text.
    for (QWidget* target : {m_window.get(), static_cast<QWidget*>(m_urlField), m_resultView->viewport()}) {
        target->setAcceptDrops(true);
        target->installEventFilter(this);
    }

    m_window->resize(680, 460);
    centreOnScreen(*m_window);
}

QWidget* VideoTranscriptionWindow::buildInputRow()
{
    auto* row = new QWidget;
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(8);

    m_urlField = new QLineEdit;
    m_urlField->setObjectName(QStringLiteral("urlField"));
    m_urlField->setPlaceholderText(QStringLiteral("Cole um link (YouTube, Vimeo, etc.) ou escolha um arquivo…"));
    m_urlField->setFont(systemFont(13, QFont::Normal));
    auto* chooseButton = makeButton(QStringLiteral("Escolher arquivo…"), "chooseButton");
    m_transcribeButton = makeButton(QStringLiteral("Transcrever"), "transcribeButton");
    m_transcribeButton->setDefault(true);
    m_cancelButton = makeButton(QStringLiteral("Cancelar"), "cancelButton");
    m_cancelButton->hide();

    layout->addWidget(m_urlField, 1);
    layout->addWidget(chooseButton);
    layout->addWidget(m_transcribeButton);
    layout->addWidget(m_cancelButton);

    connect(chooseButton, &QPushButton::clicked, this, &VideoTranscriptionWindow::chooseFile);
    connect(m_transcribeButton, &QPushButton::clicked, this, &VideoTranscriptionWindow::startTranscription);
    connect(m_cancelButton, &QPushButton::clicked, this, &VideoTranscriptionWindow::cancelTranscription);
    return row;
}

// The status line, with "Detalhes" beside it when a failure has more to tell than its summary.
QWidget* VideoTranscriptionWindow::buildStatusRow()
{
    auto* row = new QWidget;
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    m_detailsButton = new QToolButton;
    m_detailsButton->setObjectName(QStringLiteral("detailsButton"));
    m_detailsButton->setText(QStringLiteral("Detalhes"));
    m_detailsButton->setCheckable(true);
    m_detailsButton->hide();
    m_detailsView = new QPlainTextEdit;
    m_detailsView->setObjectName(QStringLiteral("detailsView"));
    m_detailsView->setReadOnly(true);
    m_detailsView->setMaximumHeight(QFontMetrics(m_detailsView->font()).lineSpacing() * 4);
    m_detailsView->hide();
    connect(m_detailsButton, &QToolButton::toggled, m_detailsView, &QWidget::setVisible);
    layout->addWidget(m_statusLabel, 1);
    layout->addWidget(m_detailsButton, 0, Qt::AlignTop);
    return row;
}

QWidget* VideoTranscriptionWindow::buildResultRow()
{
    auto* row = new QWidget;
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(8);

    m_copyButton = makeButton(QStringLiteral("Copiar"), "copyButton");
    m_saveTxtButton = makeButton(QStringLiteral("Salvar texto…"), "saveTxtButton");
    m_saveSrtButton = makeButton(QStringLiteral("Salvar legenda (.srt)…"), "saveSrtButton");
    enableResultButtons(false, false);

    layout->addWidget(m_copyButton);
    layout->addWidget(m_saveTxtButton);
    layout->addWidget(m_saveSrtButton);
    layout->addStretch(1);

    connect(m_copyButton, &QPushButton::clicked, this, &VideoTranscriptionWindow::copyResult);
    connect(m_saveTxtButton, &QPushButton::clicked, this, &VideoTranscriptionWindow::saveTxt);
    connect(m_saveSrtButton, &QPushButton::clicked, this, &VideoTranscriptionWindow::saveSrt);
    return row;
}

// Busy (a job or the installation runs): "Transcrever" off, "Cancelar" and the bar shown. The bar
// keeps its mode: determinate or not, it is what the last run left until new progress comes.
void VideoTranscriptionWindow::showBusy(bool busy)
{
    m_transcribeButton->setEnabled(!busy);
    m_cancelButton->setVisible(busy);
    m_progressBar->setVisible(busy);
}

void VideoTranscriptionWindow::enableResultButtons(bool text, bool subtitles)
{
    m_copyButton->setEnabled(text);
    m_saveTxtButton->setEnabled(text);
    m_saveSrtButton->setEnabled(subtitles);
}

void VideoTranscriptionWindow::chooseFile()
{
    if (const auto path = m_services.fileDialogs->openFile(m_window.get(), QStringLiteral("Escolher arquivo"), kMediaFilter))
        m_urlField->setText(QDir::toNativeSeparators(*path));
}

void VideoTranscriptionWindow::startTranscription()
{
    if (!m_window)
        return;
    const QString text = m_urlField->text().trimmed();
    if (text.isEmpty() || !m_transcribeButton->isEnabled())
        return;
    if (!WhisperTranscriber::isAvailable(m_services.whisperModelFileName())) {
        m_statusLabel->setText(QStringLiteral("⚠️ Baixe um modelo primeiro (menu → Modelo Whisper)."));
        return;
    }
    if (isLink(text))
        return transcribeLink(text);
    const QString path = localPath(text);
    if (!QFileInfo::exists(path)) {
        m_statusLabel->setText(QStringLiteral("⚠️ Arquivo não encontrado: ") + text);
        return;
    }
    transcribe(MediaTranscriber::Source::file(path));
}

void VideoTranscriptionWindow::transcribe(const MediaTranscriber::Source& source)
{
    showBusy(true);
    m_resultView->clear();
    m_resultText.clear();
    showDetails({});
    discardLastSrt();
    enableResultButtons(false, false);

    // The previous transcriber goes now: one that still ran is cancelled and answers nothing.
    m_transcriber = std::make_unique<MediaTranscriber>(m_services.makeMediaReader, m_services.whisperModelFileName());
    // The job runs the yt-dlp this window checked and offered to replace.
    m_transcriber->ytDlpPath = m_services.ytDlpPath;
    QPointer<VideoTranscriptionWindow> weakSelf(this);
    m_transcriber->onStatus = [weakSelf](const QString& text, std::optional<double> progress) {
        if (weakSelf)
            weakSelf->showStatus(text, progress);
    };
    m_transcriber->onFinished = [weakSelf](const MediaTranscriber::Output& output) {
        if (weakSelf)
            weakSelf->finish(output);
    };
    m_transcriber->onError = [weakSelf, link = source.kind == MediaTranscriber::Source::Kind::url](const Error& error) {
        const auto* mediaError = dynamic_cast<const MediaTranscriberError*>(&error);
        if (!weakSelf)
            return;
        weakSelf->fail(QStringLiteral("⚠️ ") + error.description(), mediaError ? mediaError->toolOutput() : QString());
        if (link && mediaError && mediaError->needsNewerYtDlp())
            weakSelf->offerUpdateAfterSiteChange();
    };
    qCInfo(lcMedia) << "window starts a job on" << source.value;
    m_transcriber->transcribe(source);
}

void VideoTranscriptionWindow::showStatus(const QString& text, std::optional<double> progress)
{
    m_statusLabel->setText(text);
    if (progress) {
        m_progressBar->setRange(0, kProgressSteps);
        m_progressBar->setValue(qRound(std::clamp(*progress, 0.0, 1.0) * kProgressSteps));
    } else {
        m_progressBar->setRange(0, 0);
    }
}

void VideoTranscriptionWindow::finish(const MediaTranscriber::Output& output)
{
    showBusy(false);
    m_resultText = output.text;
    m_resultView->setPlainText(output.text);
    m_lastSrt = output.srtURL;
    enableResultButtons(true, m_lastSrt.has_value());
    showOutcome(QStringLiteral("✅ Concluído — %1 caracteres.").arg(characterCount(output.text)));
    m_services.sounds.play(QStringLiteral("Glass"));
}

void VideoTranscriptionWindow::fail(const QString& message, const QString& details)
{
    showBusy(false);
    showOutcome(message);
    showDetails(details);
}

void VideoTranscriptionWindow::showDetails(const QString& details)
{
    m_detailsView->setPlainText(details);
    m_detailsButton->setChecked(false);
    m_detailsButton->setVisible(!details.isEmpty());
}

void VideoTranscriptionWindow::showOutcome(const QString& message)
{
    m_statusLabel->setText(message);
    qCInfo(lcMedia) << "window shows:" << message;
}

void VideoTranscriptionWindow::cancelTranscription()
{
    if (m_installation && m_installation->isRunning()) {
        m_installation->cancel();
        showBusy(false);
        m_statusLabel->clear();
        return;
    }
    if (m_transcriber)
        m_transcriber->cancel();
}

// A system yt-dlp a year old fails on many of today's sites, and Debian's own refuses to update
// itself: a current copy of our own is offered until the user answers "Agora não"; declined, the
// system's copy does the job.
void VideoTranscriptionWindow::transcribeLink(const QString& link)
{
    const std::optional<QString> ytdlp = m_services.ytDlpPath();
    if (!ytdlp) {
        offerYtDlpInstall({
            QStringLiteral("Instalar suporte a links de vídeo?"),
            QStringLiteral("Para baixar o áudio de links (YouTube e outros), o Voxaria usa o componente aberto yt-dlp "
                           "(~35 MB, download único)."),
            {{QStringLiteral("Instalar")}, {QStringLiteral("Cancelar"), Alerts::Button::Role::cancel}},
        });
        return;
    }
    if (*ytdlp == YtDlpManager::installedPath() || m_services.ytDlpUpdateDeclined.read())
        return transcribe(MediaTranscriber::Source::url(link));
    m_transcribeButton->setEnabled(false);
    YtDlpManager::readVersion(*ytdlp, this, [this, link](std::optional<QDate> version) {
        m_transcribeButton->setEnabled(true);
        if (version && YtDlpManager::isOutdated(*version)
            && offerYtDlpUpdate(QStringLiteral("O yt-dlp do sistema é de %1 e pode não funcionar com os sites de hoje. "
                                               "Baixar uma versão atual para o Voxaria?")
                                    .arg(version->toString(QStringLiteral("dd/MM/yyyy")))))
            return;
        transcribe(MediaTranscriber::Source::url(link));
    });
}

// A link the system's yt-dlp could not read because the site changed: a current copy is what
// helps, so it is offered whatever the user answered before.
void VideoTranscriptionWindow::offerUpdateAfterSiteChange()
{
    const std::optional<QString> ytdlp = m_services.ytDlpPath();
    if (!ytdlp || *ytdlp == YtDlpManager::installedPath())
        return;
    offerYtDlpUpdate(QStringLiteral("O site mudou e o yt-dlp do sistema não o entende mais. Baixar uma versão atual para o Voxaria?"));
}

bool VideoTranscriptionWindow::offerYtDlpUpdate(const QString& reason)
{
    const Alerts::Alert offer{
        QStringLiteral("Atualizar o yt-dlp?"),
        reason,
        {{QStringLiteral("Baixar")}, {QStringLiteral("Agora não"), Alerts::Button::Role::cancel}},
    };
    if (offerYtDlpInstall(offer))
        return true;
    // Only a "no" is remembered: an offer taken whose installation then failed comes again.
    m_services.ytDlpUpdateDeclined.write(true);
    return false;
}

bool VideoTranscriptionWindow::offerYtDlpInstall(const Alerts::Alert& offer)
{
    if (m_services.alerts->runModal(offer) != 0)
        return false;
    showBusy(true);
    QPointer<VideoTranscriptionWindow> weakSelf(this);
    m_installation = YtDlpManager::install(
        [weakSelf](double fraction) {
            if (weakSelf)
                weakSelf->installProgress(fraction);
        },
        [weakSelf](const QString&, const Error* error) {
            if (weakSelf)
                weakSelf->installFinished(error);
        },
        this, m_services.ytDlpSource);
    return true;
}

void VideoTranscriptionWindow::installProgress(double fraction)
{
    const double clamped = std::clamp(fraction, 0.0, 1.0);
    m_progressBar->setRange(0, kProgressSteps);
    m_progressBar->setValue(qRound(clamped * kProgressSteps));
    m_statusLabel->setText(QStringLiteral("Baixando yt-dlp… %1%").arg(int(clamped * 100)));
}

void VideoTranscriptionWindow::installFinished(const Error* error)
{
    showBusy(false);
    if (error) {
        showOutcome(QStringLiteral("⚠️ Falha ao instalar yt-dlp: ") + error->description());
        return;
    }
    m_statusLabel->setText(QStringLiteral("Componente instalado. Clique em Transcrever."));
    startTranscription();
}

void VideoTranscriptionWindow::copyResult()
{
    m_services.pasteboard->setString(m_resultText);
}

void VideoTranscriptionWindow::saveTxt()
{
    const auto path
        = m_services.fileDialogs->saveFile(m_window.get(), QStringLiteral("Salvar texto"), kTextFilter, QStringLiteral("transcricao.txt"));
    if (path)
        writeAtomically(*path, m_resultText.toUtf8());
}

void VideoTranscriptionWindow::saveSrt()
{
    if (!m_lastSrt)
        return;
    const auto path = m_services.fileDialogs->saveFile(
        m_window.get(), QStringLiteral("Salvar legenda"), kSubtitleFilter, QStringLiteral("legenda.srt"));
    if (!path || !m_lastSrt)
        return;
    QFile subtitles(*m_lastSrt);
    if (!subtitles.open(QIODevice::ReadOnly)) {
        qCWarning(lcMedia) << "could not read" << *m_lastSrt << ":" << subtitles.errorString();
        return;
    }
    writeAtomically(*path, subtitles.readAll());
}

bool VideoTranscriptionWindow::eventFilter(QObject* watched, QEvent* event)
{
    switch (event->type()) {
    case QEvent::DragEnter:
    case QEvent::DragMove: {
        auto* drag = static_cast<QDragMoveEvent*>(event);
        if (!droppedSource(drag->mimeData()))
            break;
        drag->acceptProposedAction();
        return true;
    }
    case QEvent::Drop: {
        auto* drop = static_cast<QDropEvent*>(event);
        // Taken here, not by the field, which would insert a dragged link into the text already there.
        const auto source = droppedSource(drop->mimeData());
        if (!source)
            break;
        m_urlField->setText(*source);
        drop->acceptProposedAction();
        return true;
    }
    case QEvent::Close:
        if (watched == m_window.get())
            windowWillClose();
        break;
    default: break;
    }
    return QObject::eventFilter(watched, event);
}

void VideoTranscriptionWindow::windowWillClose()
{
    qCInfo(lcMedia) << "video transcription window closed";
    cancelTranscription();
    discardLastSrt();
}

void VideoTranscriptionWindow::discardLastSrt()
{
    if (m_lastSrt) {
        // Only ever a job's own folder: a subtitle file found anywhere else is left alone.
        const QFileInfo folder(QFileInfo(*m_lastSrt).absolutePath());
        if (folder.fileName().startsWith(QStringLiteral("voxaria-media-")))
            QDir(folder.absoluteFilePath()).removeRecursively();
        m_lastSrt.reset();
    }
    if (m_saveSrtButton)
        m_saveSrtButton->setEnabled(false);
}
