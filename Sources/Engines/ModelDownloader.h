#pragma once

#include "ModelFileCheck.h"
#include "Platform/Alerts.h"

#include <QFile>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>

class QNetworkAccessManager;
class QNetworkReply;

// Fetches a Whisper model, or the live native engine's model, into the models folder, shows how far
// it got, selects a Whisper model when it is whole, and tells the user the outcome. One download at
// a time; a Whisper model's also brings the voice activity model when it is missing, in the same
// window, before the Whisper model: it is small, and its failure is only logged, so the outcome the
// user hears of is the Whisper model's.
//
// Bytes go to "<fileName>.part" beside the final file and are renamed into place only when the
// file's own structure proves it whole (ModelFileCheck: its header and tensor table add up to
// exactly its length) and, where the catalogue knows them, its size and SHA-256 match: no server's
// answer, announced length or lack of one can install a half-written file or an error page. A
// ".part" the structure shows to be a faithful start is always kept, however the connection ended,
// and is continued with an HTTP Range request guarded by the ETag (or Last-Modified) of its first
// answer, kept in "<fileName>.part.etag": a file that changed on the server since then is fetched
// again from its start, also from a server that ignores If-Range. A quit or a logout ends a running
// download at once, silently, keeping the ".part".
class ModelDownloader final : public QObject {
    Q_OBJECT
public:
    struct Model {
        QString fileName;
        QString displayName;
        int sizeMB = 0;
        QString note;
        QByteArray sha256; // lowercase hex; empty when no published hash is known (the structure check stays)
        qint64 bytes = 0; // the published file's exact length; 0 when not known
        ModelFileCheck::Format format = ModelFileCheck::Format::whisperGgml; // the layout its structure is read as

        static const QList<Model>& catalog();
        // What the start-up offer proposes: "small" runs well on most computers without a GPU.
        static const Model& recommended();
        // Silero's voice activity model, which whisper-cli uses for file and link jobs: never one
        // of the Whisper models to choose.
        static const Model& voiceActivity();
        // The live native engine's streaming model (LiveSpeechModel): never one of the Whisper
        // models either, and never selected as one.
        static const Model& liveSpeech();
        bool isLiveSpeech() const;
        // Asked afresh at every call: the user may add or remove files at any time.
        bool isDownloaded() const;
        QString filePath() const;
        // Where an unfinished download waits to be continued.
        QString partPath() const;
        // The unfinished download and what it would be continued with.
        void removePart() const;
    };
    using Completion = std::function<void(bool success)>;

    // The folders the files are fetched from (repositories of the same host); only tests pass others.
    struct Addresses {
        QUrl whisperModels;
        QUrl voiceActivityModel;
        QUrl liveSpeechModel;
    };
    static const Addresses kPublishedAddresses;

    explicit ModelDownloader(std::shared_ptr<Alerts> alerts, Addresses addresses = kPublishedAddresses, QObject* parent = nullptr);
    ~ModelDownloader() override;

    // Called once on the main thread with true when the model was installed (a Whisper model, after
    // whisperModelInstalled), false
    // when the download failed or was cancelled (a cancel stops the voice activity model too).
    // Ignored entirely while a download runs.
    void download(const Model& model, Completion completion = {});

    bool isDownloading() const { return m_isDownloading; }
    // The unfinished download of `model`, unless it is the one running (a menu item may have been
    // chosen long after it was built): false when it was left alone.
    bool removeUnfinished(const Model& model) const;
    // The model asked for, also while the voice activity model comes first.
    const Model& currentModel() const { return m_currentModel; }
    // The window's cancel button, and its close button (which asks first).
    void cancelTapped();
    void askToCancel();
    // The program quits or the session ends: the download stops now, without asking.
    void stopForQuit();

    // "273 MB de 547 MB (50%)"
    static QString progressText(qint64 written, qint64 expected);

signals:
    // A download started or ended: what the menu offers changes with it.
    void downloadingChanged();
    // A Whisper model has just been installed: it is meant to be the one dictation uses.
    void whisperModelInstalled(const QString& fileName);
    // What the download window shows: it opens when a download starts, follows its progress
    // (fraction in 0…1) and goes when the download ends.
    void progressShown(const QString& displayName);
    void progressChanged(double fraction, const QString& status);
    void progressHidden();

protected:
    // The program's quit reaches the downloader before any window is asked to close.
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    // One file of a download: the voice activity model when missing, then the model asked for.
    struct Transfer {
        Model model;
        QUrl folder;
        bool isWhisperModel = true; // the model asked for: installed, or the download failed; else only logged
    };

    void startTransfer();
    void startNextTransfer();
    void showProgress(qint64 written);
    void onResponse(QNetworkReply* reply);
    bool continuesPart(const QNetworkReply& reply);
    void onRangeNotSatisfiable(const QNetworkReply& reply);
    void onData(QNetworkReply* reply);
    void onFinished(QNetworkReply* reply);
    bool hasRoomFor(qint64 bytes);
    void rememberValidator(const QNetworkReply& reply);
    // What the file that arrived turned out to be.
    enum class Finding { whole, cutShort, notAModel, otherSize, otherHash };
    static Finding examine(const QString& path, const Model& model);
    void verify(bool resumable);
    void onVerified(Finding finding, bool resumable);
    void moveIntoPlace();
    void dropTransfer();
    void startOver();
    void fail(const QString& reason, bool keepPart);
    void finish(bool success, const std::optional<QString>& message);
    const Transfer& current() const { return m_queue.first(); }
    QString partPath() const { return current().model.partPath(); }
    QString validatorPath() const;
    QString destinationPath() const { return current().model.filePath(); }

    std::shared_ptr<Alerts> m_alerts;
    Addresses m_addresses;
    QPointer<QNetworkReply> m_task;
    std::unique_ptr<QNetworkAccessManager> m_session;
    Completion m_completion;
    Model m_currentModel;
    QList<Transfer> m_queue; // the file being fetched first
    bool m_isDownloading = false;
    quint64 m_attempt = 0; // tells a hash finished for an earlier download from the current one's

    QFile m_part;
    QByteArray m_sentValidator; // the If-Range of the running request, empty when none
    bool m_responseChecked = false;
    qint64 m_resumedFrom = 0;
    qint64 m_expected = -1; // the whole file's length, -1 when the server does not say
};
