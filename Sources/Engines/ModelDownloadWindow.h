#pragma once

#include <QWidget>

#include <functional>

class ModelDownloader;
class QLabel;
class QProgressBar;

// The small window shown while a model downloads: what is coming, a bar, how far it got, and a
// way out. Closing it from the title bar (Alt+F4) keeps it open and asks `onClose` what to do.
class ModelDownloadWindow final : public QWidget {
    Q_OBJECT
public:
    ModelDownloadWindow(const QString& displayName, std::function<void()> onCancel, std::function<void()> onClose);

    // From now on every download of `downloader` shows a window of its own, which goes with the
    // download; a logout stops the download as a quit does.
    static void follow(ModelDownloader& downloader);

    // fraction in 0…1
    void setProgress(double fraction, const QString& status);

    QString statusText() const;
    double fraction() const;

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    std::function<void()> m_onClose;
    QProgressBar* m_progressBar;
    QLabel* m_statusLabel;
};
