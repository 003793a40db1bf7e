#include "NemotronStream.h"

#include "Shared/Logging.h"

#include <QElapsedTimer>
#include <QFile>

#include <transcribe.h>
#include <transcribe/parakeet.h>

#include <malloc.h>

#include <mutex>

namespace {

// The model's lookahead in 80 ms encoder frames, one of its trained settings (13, 6, 3, 0): the text
// of a chunk is known once this much audio after it arrived, and what the release leaves to decode
// is at most one chunk of (lookahead + 1) frames. bench/LiveSpeechBench chose it.
constexpr int kLookaheadFrames = 6;

void forwardLog(transcribe_log_level level, const char* message, void*)
{
    const QString line = QString::fromUtf8(message).trimmed();
    if (line.isEmpty())
        return;
    if (level == TRANSCRIBE_LOG_LEVEL_ERROR || level == TRANSCRIBE_LOG_LEVEL_WARN)
        qCWarning(lcSpeech).noquote() << "transcribe.cpp:" << line;
    else
        qCDebug(lcSpeech).noquote() << "transcribe.cpp:" << line;
}

// The library's log goes to ours; it must be set before the first model is loaded.
void routeLibraryLog()
{
    static std::once_flag once;
    std::call_once(once, [] { transcribe_log_set(&forwardLog, nullptr); });
}

bool isCancelled(void* flag)
{
    return static_cast<const std::atomic_bool*>(flag)->load();
}

QString statusText(transcribe_status status)
{
    return QString::fromUtf8(transcribe_status_string(status));
}

QString join(const char* text, std::uint64_t bytes)
{
    return text ? QString::fromUtf8(text, qsizetype(bytes)) : QString();
}

}

struct NemotronStream::Handles {
    transcribe_model* model = nullptr;
    transcribe_session* session = nullptr;
    bool streaming = false;
};

NemotronStream::NemotronStream()
    : m(std::make_unique<Handles>())
{
}

NemotronStream::~NemotronStream()
{
    release();
}

std::optional<QString> NemotronStream::load(const QString& path)
{
    release();
    routeLibraryLog();
    QElapsedTimer clock;
    clock.start();
    const QByteArray file = QFile::encodeName(path);
    if (const transcribe_status status = transcribe_model_load_file(file.constData(), nullptr, &m->model); status != TRANSCRIBE_OK) {
        qCWarning(lcSpeech) << "the live model" << path << "does not load:" << statusText(status);
        m->model = nullptr;
        return QStringLiteral("O modelo do motor nativo em %1 está danificado ou incompleto. Baixe-o de novo no menu.").arg(path);
    }
    if (const transcribe_status status = transcribe_session_init(m->model, nullptr, &m->session); status != TRANSCRIBE_OK) {
        qCWarning(lcSpeech) << "no session on the live model:" << statusText(status);
        release();
        return QStringLiteral("O motor nativo não conseguiu preparar o reconhecimento: %1.").arg(statusText(status));
    }
    qCInfo(lcSpeech) << "live model loaded in" << clock.elapsed() << "ms from" << path;
    return std::nullopt;
}

bool NemotronStream::isLoaded() const
{
    return m->session != nullptr;
}

void NemotronStream::release()
{
    if (!m->model)
        return;
    transcribe_session_free(m->session);
    transcribe_model_free(m->model);
    *m = Handles{};
    // The weights were a few hundred MB of small and large blocks: give the freed heap back too.
    malloc_trim(0);
    qCInfo(lcSpeech) << "live model released";
}

std::optional<QString> NemotronStream::begin(const char* language, const std::atomic_bool* cancelled)
{
    abandon();
    transcribe_set_abort_callback(m->session, &isCancelled, const_cast<std::atomic_bool*>(cancelled));
    transcribe_run_params run;
    transcribe_run_params_init(&run);
    run.language = language;
    transcribe_parakeet_stream_ext lookahead;
    transcribe_parakeet_stream_ext_init(&lookahead);
    lookahead.att_context_right = kLookaheadFrames;
    transcribe_stream_params stream;
    transcribe_stream_params_init(&stream);
    if (transcribe_model_accepts_ext_kind(m->model, TRANSCRIBE_EXT_SLOT_STREAM, TRANSCRIBE_EXT_KIND_PARAKEET_STREAM))
        stream.family = &lookahead.ext;
    if (const transcribe_status status = transcribe_stream_begin(m->session, &run, &stream); status != TRANSCRIBE_OK)
        return QStringLiteral("O motor nativo não conseguiu iniciar o reconhecimento: %1.").arg(statusText(status));
    m->streaming = true;
    return std::nullopt;
}

std::optional<QString> NemotronStream::feed(std::span<const float> samples)
{
    const transcribe_status status = transcribe_stream_feed(m->session, samples.data(), int(samples.size()), nullptr);
    if (status == TRANSCRIBE_OK || status == TRANSCRIBE_ERR_ABORTED)
        return std::nullopt;
    return QStringLiteral("O motor nativo falhou ao reconhecer o áudio: %1.").arg(statusText(status));
}

std::optional<QString> NemotronStream::finalize()
{
    const transcribe_status status = transcribe_stream_finalize(m->session, nullptr);
    m->streaming = false;
    if (status == TRANSCRIBE_OK || status == TRANSCRIBE_ERR_ABORTED)
        return std::nullopt;
    return QStringLiteral("O motor nativo falhou ao reconhecer o áudio: %1.").arg(statusText(status));
}

void NemotronStream::abandon()
{
    if (m->session && std::exchange(m->streaming, false))
        transcribe_stream_reset(m->session);
}

QString NemotronStream::text() const
{
    transcribe_stream_text text;
    transcribe_stream_text_init(&text);
    if (transcribe_stream_get_text(m->session, &text) != TRANSCRIBE_OK)
        return {};
    return join(text.committed_text, text.committed_text_bytes) + join(text.tentative_text, text.tentative_text_bytes);
}

QString NemotronStream::finalText() const
{
    return QString::fromUtf8(transcribe_full_text(m->session));
}
