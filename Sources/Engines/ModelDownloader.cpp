#include "ModelDownloader.h"

#include "Shared/AppPaths.h"
#include "Shared/LiveSpeechModel.h"
#include "Shared/Logging.h"
#include "Shared/NetworkFailure.h"
#include "WhisperCliFeatures.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QEvent>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QStorageInfo>
#include <QThreadPool>

#include <filesystem>

namespace {
// A server that sends nothing for this long is given up on; the ".part" stays for the next try.
constexpr int kStallTimeoutMs = 60 * 1000;
constexpr qint64 kReadBufferBytes = 1 << 20;
constexpr qint64 kMiB = 1048576;
// Under a megabyte: the bar alone says how far it got.
const QString kVoiceActivityStatus = QStringLiteral("Baixando o modelo de detecção de voz…");
const QString kCutShort = QStringLiteral("A conexão caiu antes do fim do download. Tente de novo: ele continua de onde parou.");
const QString kRangeRefused = QStringLiteral("O servidor não pôde continuar o download de onde ele parou (HTTP 416). O que tinha "
                                             "chegado foi descartado: tente de novo para baixar do início.");

// The system's own description is English; the usual causes are said in words the user can act on.
QString saveFailureReason(const QString& systemDescription)
{
    const QString folder = AppPaths::modelsFolder();
    const QFileInfo info(folder);
    QString reason = systemDescription;
    if (info.exists() && !info.isDir())
        reason = QStringLiteral("%1 existe, mas não é uma pasta.").arg(folder);
    else if (info.isDir() && !info.isWritable())
        reason = QStringLiteral("sem permissão para gravar em %1.").arg(folder);
    else if (info.isDir() && QStorageInfo(folder).bytesAvailable() < kReadBufferBytes)
        reason = QStringLiteral("não há espaço livre no disco em %1.").arg(folder);
    return reason;
}

QString saveFailure(const QString& systemDescription)
{
    return QStringLiteral("Falha ao salvar o modelo: ") + saveFailureReason(systemDescription);
}

QString statusFailure(int status)
{
    if (status == 416)
        return kRangeRefused;
    // A 304 (never asked for) or a redirect Qt would not follow: to another scheme, or too many.
    if (status >= 300 && status < 400)
        return QStringLiteral("O servidor não enviou o arquivo: respondeu com um redirecionamento que não pôde ser seguido (HTTP %1). "
                              "Tente de novo mais tarde.")
            .arg(status);
    return QStringLiteral("O servidor respondeu com o status HTTP %1.").arg(status);
}

// What tells a later Range request whether the server's file is still the one the ".part" began
// with. If-Range takes only a strong ETag; without one, the date of the file serves.
QByteArray validator(const QNetworkReply& reply)
{
    const QByteArray etag = reply.rawHeader("ETag");
    return !etag.isEmpty() && !etag.startsWith("W/") ? etag : reply.rawHeader("Last-Modified");
}

QByteArray fileSha256(const QString& path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    return file.open(QIODevice::ReadOnly) && hash.addData(&file) ? hash.result().toHex() : QByteArray();
}

// A reason that stands alone in the download window: it starts with a capital.
QString networkReason(const QNetworkReply& reply)
{
    QString reason = NetworkFailure::reason(reply, QStringLiteral("Tente de novo: ele continua de onde parou."));
    reason[0] = reason[0].toUpper();
    return reason;
}

// "bytes 100-199/200" → 100 and 200 (-1 when the total is "*"); a 416's "bytes */200" → -1 and 200.
std::optional<std::pair<qint64, qint64>> parseContentRange(const QByteArray& header)
{
    static const QRegularExpression pattern(QStringLiteral("^bytes (?:(\\d+)-\\d+|\\*)/(\\d+|\\*)$"));
    const QRegularExpressionMatch match = pattern.match(QString::fromLatin1(header.trimmed()));
    if (!match.hasMatch())
        return std::nullopt;
    const QString start = match.captured(1);
    const QString total = match.captured(2);
    return std::make_pair(start.isEmpty() ? -1 : start.toLongLong(), total == QLatin1String("*") ? -1 : total.toLongLong());
}
}

const QList<ModelDownloader::Model>& ModelDownloader::Model::catalog()
{
    // No SHA-256 nor exact size yet: none is known from a source to trust, so these are checked by their structure.
    static const QList<Model> models = {
        {QStringLiteral("ggml-large-v3-turbo-q5_0.bin"), QStringLiteral("Máxima qualidade — large-v3-turbo"), 547,
            QStringLiteral("para processadores rápidos ou GPU"), {}, 0, ModelFileCheck::Format::whisperGgml},
        {QStringLiteral("ggml-small-q5_1.bin"), QStringLiteral("Equilibrado — small"), 190,
            QStringLiteral("recomendado para a maioria dos computadores"), {}, 0, ModelFileCheck::Format::whisperGgml},
        {QStringLiteral("ggml-base-q5_1.bin"), QStringLiteral("Leve — base"), 60, QStringLiteral("máquinas antigas; qualidade menor"), {},
            0, ModelFileCheck::Format::whisperGgml},
    };
    return models;
}

const ModelDownloader::Model& ModelDownloader::Model::recommended()
{
    return catalog().at(1);
}

const ModelDownloader::Model& ModelDownloader::Model::voiceActivity()
{
    // The hash is that of whisper.cpp 1.9.3's own copy of this model (models/for-tests-silero-v6.2.0-ggml.bin,
    // 885098 bytes: the 864.35 KB its README shows downloaded from ggml-org/whisper-vad).
    static const Model model{QFileInfo(WhisperCliFeatures::vadModelPath()).fileName(), QStringLiteral("Detecção de voz — Silero v6.2.0"), 1,
        QStringLiteral("usado nas transcrições de arquivos e links"),
        QByteArrayLiteral("2aa269b785eeb53a82983a20501ddf7c1d9c48e33ab63a41391ac6c9f7fb6987"), 885098,
        ModelFileCheck::Format::voiceActivityGgml};
    return model;
}

const ModelDownloader::Model& ModelDownloader::Model::liveSpeech()
{
    static const Model model{LiveSpeechModel::fileName(), QStringLiteral("Texto ao vivo — Nemotron"), LiveSpeechModel::sizeMB(),
        QStringLiteral("motor nativo: o texto aparece enquanto você fala"), {}, 0, ModelFileCheck::Format::gguf};
    return model;
}

bool ModelDownloader::Model::isLiveSpeech() const
{
    return fileName == LiveSpeechModel::fileName();
}

bool ModelDownloader::Model::isDownloaded() const
{
    return QFileInfo::exists(filePath());
}

QString ModelDownloader::Model::filePath() const
{
    return QDir(AppPaths::modelsFolder()).filePath(fileName);
}

QString ModelDownloader::Model::partPath() const
{
    return filePath() + QStringLiteral(".part");
}

void ModelDownloader::Model::removePart() const
{
    QFile::remove(partPath());
    QFile::remove(partPath() + QStringLiteral(".etag"));
}

ModelDownloader::ModelDownloader(std::shared_ptr<Alerts> alerts, Addresses addresses, QObject* parent)
    : QObject(parent)
    , m_alerts(std::move(alerts))
    , m_addresses(std::move(addresses))
    , m_currentModel(Model::recommended())
{
    if (QCoreApplication* application = QCoreApplication::instance())
        application->installEventFilter(this);
}

ModelDownloader::~ModelDownloader()
{
    // Going away mid-download reports nothing: the ".part" stays for the next run.
    if (m_task)
        m_task->disconnect(this);
}

QString ModelDownloader::progressText(qint64 written, qint64 expected)
{
    const int percent = int(double(written) / double(expected) * 100);
    return QStringLiteral("%1 MB de %2 MB (%3%)").arg(written / kMiB).arg(expected / kMiB).arg(percent);
}

bool ModelDownloader::removeUnfinished(const Model& model) const
{
    if (m_isDownloading && m_currentModel.fileName == model.fileName) {
        qCInfo(lcWhisper) << "the unfinished download of" << model.fileName << "is running; not removed";
        return false;
    }
    model.removePart();
    return true;
}

// The user asked to quit (the menu, a signal, the session): the download stops now, without the
// question its window would ask, so that the quit is not held up.
bool ModelDownloader::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == QCoreApplication::instance() && event->type() == QEvent::Quit)
        stopForQuit();
    return QObject::eventFilter(watched, event);
}

void ModelDownloader::stopForQuit()
{
    if (!m_isDownloading)
        return;
    qCInfo(lcWhisper) << "quitting: the download of" << m_currentModel.fileName << "stops; what arrived is kept for the next one";
    cancelTapped();
}

void ModelDownloader::download(const Model& model, Completion completion)
{
    if (m_isDownloading)
        return;
    m_isDownloading = true;
    emit downloadingChanged();
    ++m_attempt;
    m_currentModel = model;
    m_completion = std::move(completion);
    // A failure shows up when the ".part" cannot be opened.
    QDir().mkpath(AppPaths::modelsFolder());
    emit progressShown(model.displayName);
    m_session = std::make_unique<QNetworkAccessManager>();
    m_queue.clear();
    // Only whisper-cli uses the voice activity model.
    if (!model.isLiveSpeech() && !Model::voiceActivity().isDownloaded())
        m_queue.append({Model::voiceActivity(), m_addresses.voiceActivityModel, false});
    m_queue.append({model, model.isLiveSpeech() ? m_addresses.liveSpeechModel : m_addresses.whisperModels, true});
    startTransfer();
}

void ModelDownloader::startTransfer()
{
    m_part.setFileName(partPath());
    m_responseChecked = false;
    m_expected = -1;
    emit progressChanged(
        0, current().isWhisperModel ? QStringLiteral("Conectando… (%1 MB no total)").arg(current().model.sizeMB) : kVoiceActivityStatus);
    // Unbuffered, so that a full disk fails the write that meets it rather than a silent flush.
    if (!m_part.open(QIODevice::ReadWrite | QIODevice::Unbuffered)) {
        const QString reason = saveFailure(m_part.errorString());
        // Reported from the event loop, so the caller's completion never runs inside download(); a
        // cancel meanwhile makes it moot.
        QMetaObject::invokeMethod(
            this,
            [this, reason, attempt = m_attempt] {
                if (m_isDownloading && m_attempt == attempt)
                    fail(reason, true);
            },
            Qt::QueuedConnection);
        return;
    }
    m_resumedFrom = m_part.size();
    m_sentValidator.clear();

    QNetworkRequest request(current().folder.resolved(QUrl(current().model.fileName)));
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setTransferTimeout(kStallTimeoutMs);
    // Byte counts must be the file's own, never those of a compressed transfer.
    request.setRawHeader("Accept-Encoding", "identity");
    if (m_resumedFrom > 0) {
        request.setRawHeader("Range", "bytes=" + QByteArray::number(m_resumedFrom) + '-');
        QFile validatorFile(validatorPath());
        m_sentValidator = validatorFile.open(QIODevice::ReadOnly) ? validatorFile.readAll().trimmed() : QByteArray();
        if (!m_sentValidator.isEmpty())
            request.setRawHeader("If-Range", m_sentValidator);
    }
    qCInfo(lcWhisper) << "downloading" << request.url().toString() << "from byte" << m_resumedFrom;

    QNetworkReply* reply = m_session->get(request);
    // Without a limit Qt reads the socket as fast as the network allows and holds in memory what
    // the disk has not taken yet: hundreds of megabytes for a large model.
    reply->setReadBufferSize(kReadBufferBytes);
    m_task = reply;
    // Reports of an earlier download's transfer never touch the current one.
    connect(reply, &QNetworkReply::metaDataChanged, this, [this, reply] {
        if (reply == m_task && !m_responseChecked)
            onResponse(reply);
    });
    connect(reply, &QNetworkReply::readyRead, this, [this, reply] {
        if (reply == m_task)
            onData(reply);
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] {
        if (reply == m_task)
            onFinished(reply);
    });
}

void ModelDownloader::onResponse(QNetworkReply* reply)
{
    const QVariant statusAttribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!statusAttribute.isValid())
        return;
    const int status = statusAttribute.toInt();
    if (status >= 300 && status < 400)
        return; // a redirect on its way to the real answer
    m_responseChecked = true;
    if (status == 416) {
        onRangeNotSatisfiable(*reply);
        return;
    }
    if (status < 200 || status >= 300) {
        fail(statusFailure(status), true);
        return;
    }
    if (status == 206) {
        if (!continuesPart(*reply))
            return;
    } else {
        // The whole file, also what a server whose file changed since the ".part" began sends: start over.
        m_resumedFrom = 0;
        // Only when needed: truncating makes the file system write the whole file out at close.
        if (m_part.size() > 0)
            m_part.resize(0);
        const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
        m_expected = length.isValid() ? length.toLongLong() : -1;
        rememberValidator(*reply);
    }
    if (!hasRoomFor(m_expected - m_resumedFrom))
        return;
    m_part.seek(m_resumedFrom);
    showProgress(m_resumedFrom);
}

// A 206 must go on from the last byte of the ".part", and of the same file: a server that ignores
// If-Range would otherwise splice a changed file's bytes onto the old ones. Its total may be "*":
// the file's own structure tells its length at the end.
bool ModelDownloader::continuesPart(const QNetworkReply& reply)
{
    const auto range = parseContentRange(reply.rawHeader("Content-Range"));
    if (m_resumedFrom == 0 || !range || range->first != m_resumedFrom) {
        fail(QStringLiteral("O servidor enviou um trecho do arquivo diferente do pedido. O arquivo foi descartado."), false);
        return false;
    }
    const QByteArray answered = validator(reply);
    if (!m_sentValidator.isEmpty() && !answered.isEmpty() && answered != m_sentValidator) {
        startOver();
        return false;
    }
    m_expected = range->second;
    return true;
}

// A 416 says the ".part" already reaches the end of the server's file. A ".part" whose structure
// proves it whole is installed as it is (servers differ on sending "bytes */<size>" along); any
// other cannot be continued, so it is let go. The answer's body is of no use.
void ModelDownloader::onRangeNotSatisfiable(const QNetworkReply& reply)
{
    const auto range = parseContentRange(reply.rawHeader("Content-Range"));
    dropTransfer();
    if (m_resumedFrom == 0 || (range && range->second != m_resumedFrom)) {
        fail(kRangeRefused, false);
        return;
    }
    m_expected = m_resumedFrom;
    verify(false);
}

// The disk is asked before the first byte, so a model that cannot fit fails at once and says how
// much is missing. A small margin leaves room for the file system's own bookkeeping.
bool ModelDownloader::hasRoomFor(qint64 bytes)
{
    const qint64 available = QStorageInfo(AppPaths::modelsFolder()).bytesAvailable();
    const qint64 missing = bytes + kReadBufferBytes - available;
    if (bytes <= 0 || available < 0 || missing <= 0)
        return true;
    fail(QStringLiteral("Espaço insuficiente em disco: faltam %1 MB.").arg((missing + kMiB - 1) / kMiB), true);
    return false;
}

void ModelDownloader::rememberValidator(const QNetworkReply& reply)
{
    const QByteArray value = validator(reply);
    QFile file(validatorPath());
    if (value.isEmpty() || !file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(value) != value.size())
        QFile::remove(validatorPath());
}

void ModelDownloader::onData(QNetworkReply* reply)
{
    if (!m_responseChecked)
        onResponse(reply);
    if (reply != m_task || !m_responseChecked)
        return;
    const QByteArray bytes = reply->readAll();
    if (m_part.write(bytes) != bytes.size()) {
        fail(QStringLiteral("Falha ao gravar o modelo no disco: ") + saveFailureReason(m_part.errorString()), false);
        return;
    }
    const qint64 written = m_part.pos();
    if (m_expected >= 1 && written > m_expected) {
        fail(QStringLiteral("O servidor enviou mais dados do que anunciou (%1 bytes). O arquivo foi descartado.").arg(m_expected), false);
        return;
    }
    showProgress(written);
}

void ModelDownloader::showProgress(qint64 written)
{
    if (m_expected < 1)
        return;
    emit progressChanged(double(written) / m_expected, current().isWhisperModel ? progressText(written, m_expected) : kVoiceActivityStatus);
}

void ModelDownloader::onFinished(QNetworkReply* reply)
{
    onData(reply);
    if (reply != m_task)
        return;
    // The final answer was never a 2xx: a 304, or a redirect that was not followed.
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (!m_responseChecked && status >= 300 && status < 400) {
        fail(statusFailure(status), true);
        return;
    }
    if (reply->error() != QNetworkReply::NoError) {
        fail(networkReason(*reply), true);
        return;
    }
    verify(true);
}

// The structure first: it costs a few reads; the hash reads every byte.
ModelDownloader::Finding ModelDownloader::examine(const QString& path, const Model& model)
{
    const qint64 size = QFileInfo(path).size();
    if (model.bytes > 0 && size > model.bytes)
        return Finding::otherSize;
    switch (ModelFileCheck::check(path, model.format)) {
    case ModelFileCheck::Verdict::incomplete: return Finding::cutShort;
    case ModelFileCheck::Verdict::invalid: return Finding::notAModel;
    case ModelFileCheck::Verdict::complete: break;
    }
    if (model.bytes > 0 && size != model.bytes)
        return Finding::otherSize;
    if (!model.sha256.isEmpty() && fileSha256(path) != model.sha256)
        return Finding::otherHash;
    return Finding::whole;
}

// Qt sometimes ends a cut connection as if the answer were complete, so neither that nor an
// announced length decides: a file shorter than announced is a cut, kept for resuming, and
// otherwise the file's own structure (then size and hash) says what arrived. Reading it runs on a
// pooled thread, as hashing hundreds of megabytes takes seconds; a cancel meanwhile, or a newer
// download, makes its answer moot. `resumable`: false when the server said it has nothing more.
void ModelDownloader::verify(bool resumable)
{
    const qint64 size = m_part.size();
    m_part.close();
    if (m_expected >= 0 && size < m_expected) {
        onVerified(Finding::cutShort, resumable);
        return;
    }
    const QPointer<ModelDownloader> self(this);
    QThreadPool::globalInstance()->start([self, attempt = m_attempt, path = partPath(), model = current().model, resumable] {
        const Finding finding = examine(path, model);
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [self, attempt, finding, resumable] {
                if (self && self->m_isDownloading && self->m_attempt == attempt)
                    self->onVerified(finding, resumable);
            },
            Qt::QueuedConnection);
    });
}

void ModelDownloader::onVerified(Finding finding, bool resumable)
{
    const QString otherFile = QStringLiteral("O arquivo recebido não confere com o modelo publicado (%1). O arquivo foi descartado.");
    switch (finding) {
    case Finding::whole: moveIntoPlace(); return;
    case Finding::cutShort: fail(resumable ? kCutShort : kRangeRefused, resumable); return;
    case Finding::notAModel:
        fail(current().model.isLiveSpeech() ? QStringLiteral("O arquivo recebido não é um modelo do motor nativo. Nada foi instalado.")
                                            : QStringLiteral("O arquivo recebido não é um modelo Whisper. Nada foi instalado."),
            false);
        return;
    case Finding::otherSize: fail(otherFile.arg(QStringLiteral("tamanho")), false); return;
    case Finding::otherHash: fail(otherFile.arg(QStringLiteral("SHA-256")), false); return;
    }
}

void ModelDownloader::moveIntoPlace()
{
    // A rename within the models folder: no copy, and an earlier model stays if it fails.
    std::error_code error;
    std::filesystem::rename(partPath().toStdString(), destinationPath().toStdString(), error);
    if (error) {
        // The file is whole: it stays, and the next try installs it without fetching it again.
        const QString reason = QFileInfo(destinationPath()).isDir()
            ? QStringLiteral("Falha ao salvar o modelo: já existe uma pasta %1.").arg(destinationPath())
            : saveFailure(QString::fromStdString(error.message()));
        fail(reason, true);
        return;
    }
    QFile::remove(validatorPath());
    qCInfo(lcWhisper) << "installed model" << current().model.fileName;
    if (!current().isWhisperModel) {
        startNextTransfer();
        return;
    }
    // The live engine has one model: its engine is what the user selects.
    if (!m_currentModel.isLiveSpeech())
        emit whisperModelInstalled(m_currentModel.fileName);
    finish(true, QStringLiteral("Modelo \"%1\" instalado e selecionado. Segure a tecla de ditado e fale.").arg(m_currentModel.displayName));
}

void ModelDownloader::fail(const QString& reason, bool keepPart)
{
    qCWarning(lcWhisper) << "download of" << current().model.fileName << "failed:" << reason;
    m_part.close();
    // An empty part has nothing to continue: it would only be left lying in the models folder.
    if (!keepPart || QFileInfo(current().model.partPath()).size() == 0)
        current().model.removePart();
    if (current().isWhisperModel) {
        finish(false, reason);
        return;
    }
    qCWarning(lcWhisper) << "file and link transcriptions run without voice activity detection until a later model download brings it";
    startNextTransfer();
}

// The transfer reports nothing more, and one given up mid-way stops as it goes (not aborted: this
// may run inside its own signal).
void ModelDownloader::dropTransfer()
{
    if (m_task) {
        m_task->disconnect(this);
        m_task->deleteLater();
    }
    m_task = nullptr;
}

// The next file comes through the same session.
void ModelDownloader::startNextTransfer()
{
    dropTransfer();
    m_queue.removeFirst();
    startTransfer();
}

// The server's file changed since the ".part" began, yet it sent the rest of the new one: what
// arrived is of another file, so this one is fetched again from its first byte.
void ModelDownloader::startOver()
{
    qCInfo(lcWhisper) << "the server's" << current().model.fileName << "changed since its part began; fetching it from the start";
    dropTransfer();
    m_part.close();
    current().model.removePart();
    startTransfer();
}

void ModelDownloader::cancelTapped()
{
    // The ".part" stays, so the next try continues where this one stopped.
    finish(false, std::nullopt);
}

// Closing the window would otherwise hide a download that nothing could stop any more.
void ModelDownloader::askToCancel()
{
    if (!m_isDownloading)
        return;
    const quint64 attempt = m_attempt;
    const int answer = m_alerts->runModal({QStringLiteral("Cancelar o download?"),
        QStringLiteral("O que já chegou fica guardado, e o próximo download continua de onde parou."),
        {{QStringLiteral("Cancelar download"), Alerts::Button::Role::destructive},
            {QStringLiteral("Continuar"), Alerts::Button::Role::cancel}}});
    if (answer == 0 && m_attempt == attempt)
        cancelTapped();
}

void ModelDownloader::finish(bool success, const std::optional<QString>& message)
{
    if (!m_isDownloading)
        return;
    m_isDownloading = false;
    // Taken now: a download started while the alert below is open has a completion of its own.
    Completion completion = std::move(m_completion);
    m_completion = nullptr;
    // The session's end takes its transfer with it; nothing it still reports reaches us.
    if (m_task)
        m_task->disconnect(this);
    m_task = nullptr;
    if (m_session)
        m_session.release()->deleteLater();
    m_part.close();
    emit progressHidden();

    emit downloadingChanged();
    if (message)
        m_alerts->runModal({success ? QStringLiteral("Modelo instalado") : QStringLiteral("Download não concluído"), *message, {}});
    if (completion)
        completion(success);
}

QString ModelDownloader::validatorPath() const
{
    return partPath() + QStringLiteral(".etag");
}
