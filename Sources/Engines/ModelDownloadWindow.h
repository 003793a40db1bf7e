#pragma once

#include <QWidget>

#include <functional>

class QLabel;
class QProgressBar;

// The small window shown while a model downloads: what is coming, a bar, how far it got, and a
// way out. It has a title bar only, so "Cancelar" is the one way to stop from here.
class ModelDownloadWindow final : public QWidget {
    Q_OBJECT
public:
    ModelDownloadWindow(const QString& displayName, int sizeMB, std::function<void()> onCancel);

    // fraction in 0…1
    void setProgress(double fraction, const QString& status);

    QString statusText() const;
    double fraction() const;

private:
    QProgressBar* m_progressBar;
    QLabel* m_statusLabel;
};
