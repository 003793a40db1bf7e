#include "YtDlpInstallation.h"

#include "Shared/AppPaths.h"
#include "Shared/Error.h"
#include "Shared/Logging.h"
#include "Shared/NetworkFailure.h"

#include <QDir>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

#include <filesystem>

namespace {
// A server that sends nothing for this long is given up on.
constexpr int kStallTimeoutMs = 60 * 1000;
// Without a limit Qt reads as fast as the network allows and keeps in memory what the disk has not
// taken yet; the program is about 35 MB.
constexpr qint64 kReadBufferBytes = 1 << 20;
// rwxr-xr-x: the user runs it, and so may anyone who can read the folder, like the system's copy.
constexpr auto kExecutable = std::filesystem::perms::owner_all | std::filesystem::perms::group_read | std::filesystem::perms::group_exec
    | std::filesystem::perms::others_read | std::filesystem::perms::others_exec;

// Puts `from` at `to` in one rename, so whoever looks there finds the earlier program or the new
// one, never half of one and never nothing. The temporary folder is often another file system
// (tmpfs), where a rename cannot reach: the file is then copied beside `to` first.
std::error_code replaceAtomically(const QString& from, const QString& to)
{
    namespace fs = std::filesystem;
    std::error_code error;
    fs::rename(from.toStdString(), to.toStdString(), error);
    if (error != std::errc::cross_device_link)
        return error;
    const fs::path staged = QDir(QFileInfo(to).path()).filePath(QLatin1Char('.') + QFileInfo(from).fileName()).toStdString();
    error.clear();
    if (fs::copy_file(from.toStdString(), staged, fs::copy_options::overwrite_existing, error))
        fs::permissions(staged, kExecutable, error);
    if (!error)
        fs::rename(staged, to.toStdString(), error);
    std::error_code ignored;
    fs::remove(error ? staged : fs::path(from.toStdString()), ignored);
    return error;
}

}

YtDlpInstallation::YtDlpInstallation(const QUrl& source, QString destination, Progress progress, Completion completion, QObject* parent)
    : QObject(parent)
    , m_destination(std::move(destination))
    , m_progress(std::move(progress))
    , m_completion(std::move(completion))
{
    start(source);
}

YtDlpInstallation::~YtDlpInstallation()
{
    discard();
    // Later, not now: a caller may delete us from a progress callback, inside the reply's own signal.
    if (m_session)
        m_session->deleteLater();
}

void YtDlpInstallation::start(const QUrl& source)
{
    const QString folder = QFileInfo(m_destination).path();
    m_download.setFileName(AppPaths::scratchPath(QStringLiteral("yt-dlp-")));
    // Checked before downloading, so the user does not wait 35 MB for a folder that cannot exist.
    QString failure;
    if (!QDir().mkpath(folder))
        failure = QStringLiteral("não foi possível criar a pasta %1.").arg(folder);
    // Unbuffered, so a full disk fails the write that hits it instead of a silent flush later.
    else if (!m_download.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
        failure = QStringLiteral("não foi possível gravar %1 (%2).").arg(m_download.fileName(), m_download.errorString());
    if (!failure.isEmpty()) {
        // Reported from the event loop, so the caller's completion never runs inside install().
        QMetaObject::invokeMethod(
            this, [this, failure] { fail(failure); }, Qt::QueuedConnection);
        return;
    }

    QNetworkRequest request(source);
    // The release address redirects to the file host.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setTransferTimeout(kStallTimeoutMs);
    // Byte counts must be the file's own, never those of a compressed transfer.
    request.setRawHeader("Accept-Encoding", "identity");
    qCInfo(lcMedia) << "downloading yt-dlp from" << source.toString();
    m_session = new QNetworkAccessManager;
    m_reply = m_session->get(request);
    m_reply->setReadBufferSize(kReadBufferBytes);
    connect(m_reply, &QNetworkReply::metaDataChanged, this, [this] {
        if (!m_responseChecked)
            onResponse();
    });
    connect(m_reply, &QNetworkReply::readyRead, this, &YtDlpInstallation::onData);
    connect(m_reply, &QNetworkReply::finished, this, &YtDlpInstallation::onFinished);
}

void YtDlpInstallation::onResponse()
{
    const QVariant status = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid() || (status.toInt() >= 300 && status.toInt() < 400))
        return; // no answer yet, or a redirect on its way to the real one
    m_responseChecked = true;
    if (status.toInt() < 200 || status.toInt() >= 300) {
        fail(QStringLiteral("o servidor respondeu com o status HTTP %1.").arg(status.toInt()));
        return;
    }
    const QVariant length = m_reply->header(QNetworkRequest::ContentLengthHeader);
    m_expected = length.isValid() ? length.toLongLong() : -1;
}

void YtDlpInstallation::onData()
{
    if (!m_responseChecked)
        onResponse();
    if (!m_running || !m_responseChecked)
        return;
    const QByteArray bytes = m_reply->readAll();
    if (m_download.write(bytes) != bytes.size()) {
        fail(QStringLiteral("não foi possível gravar %1 (%2).").arg(m_download.fileName(), m_download.errorString()));
        return;
    }
    if (m_expected >= 1 && m_progress)
        m_progress(double(m_download.size()) / double(m_expected)); // may cancel or delete us: nothing follows
}

void YtDlpInstallation::onFinished()
{
    onData();
    if (!m_running)
        return;
    if (m_reply->error() != QNetworkReply::NoError)
        fail(NetworkFailure::reason(*m_reply, QStringLiteral("Tente de novo.")));
    else if (!m_responseChecked)
        fail(QStringLiteral("o endereço %1 não deu uma resposta HTTP.").arg(m_reply->url().toString()));
    else
        installDownload();
}

void YtDlpInstallation::installDownload()
{
    const qint64 size = m_download.size();
    m_download.close();
    if (size == 0) {
        fail(QStringLiteral("o servidor não enviou nenhum dado."));
        return;
    }
    // The announced length is the only proof that the whole program arrived: a connection that
    // closes early is not reported as an error everywhere on the way.
    if (m_expected >= 0 && size != m_expected) {
        fail(QStringLiteral("o servidor anunciou %1 bytes, mas enviou %2.").arg(m_expected).arg(size));
        return;
    }
    std::error_code error;
    std::filesystem::permissions(m_download.fileName().toStdString(), kExecutable, error);
    if (!error)
        error = replaceAtomically(m_download.fileName(), m_destination);
    if (error) {
        fail(QStringLiteral("não foi possível instalar em %1 (%2).").arg(m_destination, QString::fromStdString(error.message())));
        return;
    }
    qCInfo(lcMedia) << "installed yt-dlp at" << m_destination << "bytes:" << size;
    m_running = false;
    stopTransfer();
    deliver(m_destination, nullptr);
}

void YtDlpInstallation::cancel()
{
    if (!m_running)
        return;
    qCInfo(lcMedia) << "yt-dlp installation cancelled";
    discard();
    m_progress = nullptr;
    m_completion = nullptr;
    deleteLater();
}

void YtDlpInstallation::fail(const QString& reason)
{
    if (!m_running)
        return;
    qCWarning(lcMedia) << "yt-dlp installation failed:" << reason;
    discard();
    // The reason alone: whoever shows it says what failed ("Falha ao instalar yt-dlp: …").
    const PlatformError error(reason);
    deliver({}, &error);
}

void YtDlpInstallation::deliver(const QString& installedPath, const Error* error)
{
    m_progress = nullptr;
    const Completion completion = std::move(m_completion);
    m_completion = nullptr;
    // Before the call: the caller may delete us from inside it, and nothing here runs after it.
    deleteLater();
    if (completion)
        completion(installedPath, error);
}

void YtDlpInstallation::discard()
{
    if (!m_running)
        return;
    m_running = false;
    stopTransfer();
    m_download.remove();
}

void YtDlpInstallation::stopTransfer()
{
    // Ended from the event loop: aborting a reply inside its own signal makes Qt report its end
    // twice. Disconnected now, so nothing it still says reaches us.
    if (m_reply) {
        m_reply->disconnect(this);
        m_reply->deleteLater();
    }
    m_download.close();
}
