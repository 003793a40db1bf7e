#pragma once

#include "MediaTranscriber.h"
#include "Platform/Alerts.h"
#include "Platform/FeedbackSounds.h"
#include "Platform/FileDialogs.h"
#include "Platform/Pasteboard.h"
#include "Shared/Preferences/Preference.h"

#include <QObject>
#include <QPointer>
#include <QUrl>

#include <functional>
#include <memory>
#include <optional>

class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;
class QToolButton;
class QWidget;
class YtDlpInstallation;

// "Transcrever vídeo ou link": the user pastes a link or a path (or picks or drops a file), starts
// a MediaTranscriber job, follows its status and progress, and copies the transcript or saves it as
// text or SRT subtitles. A link while yt-dlp is missing first offers to install it, and so does a
// link met with a system yt-dlp over a year old (until the user declines) or one that failed
// because the site changed under the system's copy. The window is
// built on the first show() and only hidden when closed; closing stops a running job or
// installation and removes the last job's subtitle file. Main thread only.
class VideoTranscriptionWindow : public QObject {
    Q_OBJECT
public:
    // What the window reaches outside the program, and the preferences it reads and writes.
    struct Services {
        std::shared_ptr<Alerts> alerts;
        std::shared_ptr<FileDialogs> fileDialogs;
        FeedbackSounds sounds;
        std::shared_ptr<Pasteboard> pasteboard;
        std::function<std::optional<QString>()> ytDlpPath; // default: YtDlpManager::binaryURL
        QUrl ytDlpSource; // default: YtDlpManager::downloadURL()
        MediaTranscriber::MediaReaderFactory makeMediaReader;
        // The Whisper model dictation uses, asked at each job.
        std::function<QString()> whisperModelFileName;
        // Whether the user answered "Agora não" to a current yt-dlp in place of the system's outdated one.
        Preference<bool> ytDlpUpdateDeclined;
    };

    explicit VideoTranscriptionWindow(Services services, QObject* parent = nullptr);
    ~VideoTranscriptionWindow() override;

    // Builds the window on the first call and brings it to the front.
    void show();
    // Absent until the first show().
    QWidget* window() const { return m_window.get(); }

    void chooseFile();
    void startTranscription();
    // Stops the running job, or the yt-dlp installation (the window is then idle again).
    void cancelTranscription();
    void copyResult();
    void saveTxt();
    void saveSrt();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void build();
    QWidget* buildInputRow();
    QWidget* buildResultRow();
    QWidget* buildStatusRow();
    void showBusy(bool busy);
    void enableResultButtons(bool text, bool subtitles);

    void transcribe(const MediaTranscriber::Source& source);
    void showStatus(const QString& text, std::optional<double> progress);
    void finish(const MediaTranscriber::Output& output);
    // `details`: the program's own words, kept behind "Detalhes" (none: the control stays hidden).
    void fail(const QString& message, const QString& details = {});
    void showDetails(const QString& details);
    // The status line at the end of a job or an installation, also written to the log.
    void showOutcome(const QString& message);

    void transcribeLink(const QString& link);
    void offerUpdateAfterSiteChange();
    // "Atualizar o yt-dlp?" with `reason`; answers whether the user took it (a "no" is remembered).
    bool offerYtDlpUpdate(const QString& reason);
    // Answers whether the user took the offer.
    bool offerYtDlpInstall(const Alerts::Alert& offer);
    void installProgress(double fraction);
    void installFinished(const Error* error);

    void windowWillClose();
    // Removes the last job's folder with its subtitle file; "Salvar legenda (.srt)…" goes off.
    void discardLastSrt();

    Services m_services;

    std::unique_ptr<QWidget> m_window;
    QLineEdit* m_urlField = nullptr;
    QLabel* m_statusLabel = nullptr;
    QToolButton* m_detailsButton = nullptr;
    QPlainTextEdit* m_detailsView = nullptr;
    QProgressBar* m_progressBar = nullptr;
    QPlainTextEdit* m_resultView = nullptr;
    QPushButton* m_transcribeButton = nullptr;
    QPushButton* m_cancelButton = nullptr;
    QPushButton* m_copyButton = nullptr;
    QPushButton* m_saveTxtButton = nullptr;
    QPushButton* m_saveSrtButton = nullptr;

    // The last job's text as it came: what "Copiar" and "Salvar texto…" give. The view's own text
    // differs (its no-break spaces and line separators come back as plain ones).
    QString m_resultText;
    std::unique_ptr<MediaTranscriber> m_transcriber;
    QPointer<YtDlpInstallation> m_installation;
    std::optional<QString> m_lastSrt;
};
