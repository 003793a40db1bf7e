#include "ModelDownloadWindow.h"

#include "ModelDownloader.h"
#include "UI/SystemFont.h"

#include <QCloseEvent>
#include <QGuiApplication>
#include <QLabel>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QVBoxLayout>

namespace {
// The bar counts in thousandths, so a 547 MB download still moves visibly.
constexpr int kBarSteps = 1000;
}

ModelDownloadWindow::ModelDownloadWindow(const QString& displayName, std::function<void()> onCancel, std::function<void()> onClose)
    : QWidget(nullptr, Qt::Window | Qt::CustomizeWindowHint | Qt::WindowTitleHint)
    , m_onClose(std::move(onClose))
    , m_progressBar(new QProgressBar(this))
    , m_statusLabel(new QLabel(this))
{
    setWindowTitle(QStringLiteral("Voxaria"));
    setFixedSize(400, 140);

    auto* title = new QLabel(QStringLiteral("Baixando ") + displayName, this);
    title->setFont(systemFont(13, QFont::DemiBold));

    m_progressBar->setRange(0, kBarSteps);
    m_progressBar->setValue(0);
    m_progressBar->setTextVisible(false);
    m_progressBar->setFixedWidth(360);

    m_statusLabel->setFont(systemFont(11, QFont::Normal));
    m_statusLabel->setForegroundRole(QPalette::PlaceholderText);

    auto* cancel = new QPushButton(QStringLiteral("Cancelar"), this);
    connect(cancel, &QPushButton::clicked, this, [onCancel = std::move(onCancel)] { onCancel(); });

    auto* stack = new QVBoxLayout(this);
    stack->setContentsMargins(20, 20, 20, 16);
    stack->setSpacing(8);
    for (QWidget* element : {static_cast<QWidget*>(title), static_cast<QWidget*>(m_progressBar), static_cast<QWidget*>(m_statusLabel),
             static_cast<QWidget*>(cancel)})
        stack->addWidget(element, 0, Qt::AlignLeft);

    if (QScreen* screen = QGuiApplication::primaryScreen())
        move(screen->availableGeometry().center() - rect().center());
}

void ModelDownloadWindow::follow(ModelDownloader& downloader)
{
    if (auto* application = qobject_cast<QGuiApplication*>(QCoreApplication::instance()))
        connect(application, &QGuiApplication::commitDataRequest, &downloader, &ModelDownloader::stopForQuit);
    connect(&downloader, &ModelDownloader::progressShown, &downloader, [&downloader](const QString& displayName) {
        // The question waits for the event loop: the window may be gone by the time it is answered.
        QPointer<ModelDownloadWindow> window = new ModelDownloadWindow(
            displayName, [&downloader] { downloader.cancelTapped(); },
            [&downloader] { QMetaObject::invokeMethod(&downloader, &ModelDownloader::askToCancel, Qt::QueuedConnection); });
        connect(&downloader, &ModelDownloader::progressChanged, window, &ModelDownloadWindow::setProgress);
        connect(&downloader, &ModelDownloader::progressHidden, window, [window, &downloader] {
            disconnect(&downloader, nullptr, window, nullptr);
            window->hide();
            window->deleteLater();
        });
        connect(&downloader, &QObject::destroyed, window, [window] { delete window; });
        window->show();
        window->raise();
        window->activateWindow();
    });
}

void ModelDownloadWindow::closeEvent(QCloseEvent* event)
{
    // Taken off the screen, its download has ended: it closes like any window and never holds up
    // the program's quit.
    if (isHidden()) {
        event->accept();
        return;
    }
    event->ignore();
    m_onClose();
}

void ModelDownloadWindow::setProgress(double fraction, const QString& status)
{
    m_progressBar->setValue(qBound(0, int(fraction * kBarSteps), kBarSteps));
    m_statusLabel->setText(status);
}

QString ModelDownloadWindow::statusText() const
{
    return m_statusLabel->text();
}

double ModelDownloadWindow::fraction() const
{
    return double(m_progressBar->value()) / kBarSteps;
}
