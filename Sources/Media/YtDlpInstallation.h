#pragma once

#include <QFile>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <functional>

class Error;
class QNetworkAccessManager;
class QNetworkReply;

// One download of the yt-dlp program into place (made by YtDlpManager::install).
//
// The bytes are streamed to "yt-dlp-<UUID>" in the temporary folder, never held in memory. Only an
// HTTP 2xx answer that is not empty and, when the server announced a length, exactly that long is
// installed: an error page or a cut transfer run as "yt-dlp" would only fail later, in a way the
// user could not tie to this download. The file is made executable and renamed over the earlier
// copy in one step, so a failed or cancelled installation leaves a working earlier copy as it was.
// The temporary file is removed in every outcome but success.
class YtDlpInstallation final : public QObject {
    Q_OBJECT
public:
    using Progress = std::function<void(double fraction)>;
    // Exactly one of the two is given: the installed program's path, or why nothing was installed.
    using Completion = std::function<void(const QString& installedPath, const Error* error)>;

    YtDlpInstallation(const QUrl& source, QString destination, Progress progress, Completion completion, QObject* parent);
    // Going away mid-download is a cancel.
    ~YtDlpInstallation() override;

    // Stops the download and removes what it fetched. `completion` is not called: the caller asked
    // for this and already knows the outcome. Nothing happens after the completion has run.
    void cancel();
    bool isRunning() const { return m_running; }

private:
    void start(const QUrl& source);
    void onResponse();
    void onData();
    void onFinished();
    void installDownload();
    void fail(const QString& reason);
    // Hands the outcome to the caller once; the object then deletes itself.
    void deliver(const QString& installedPath, const Error* error);
    // Ends a running download without a word: the transfer stops and its file is removed.
    void discard();
    void stopTransfer();

    QString m_destination;
    Progress m_progress;
    Completion m_completion;
    QNetworkAccessManager* m_session = nullptr;
    QPointer<QNetworkReply> m_reply;
    QFile m_download;
    bool m_running = true;
    bool m_responseChecked = false;
    qint64 m_expected = -1; // the announced length, -1 when the server does not say
};
