#include "PocketSphinxDecoder.h"

#include "Shared/Logging.h"

#include <QElapsedTimer>

#include <pocketsphinx.h>

#include <mutex>
#include <thread>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct KeptDecoder {
    std::mutex mutex;
    std::unique_ptr<PocketSphinxDecoder> decoder;
};

// Never destroyed: a decoding worker may still hand its decoder back while the process exits.
KeptDecoder& kept()
{
    static auto* instance = new KeptDecoder;
    return *instance;
}

struct ModelPaths {
    QByteArray acoustic;
    QByteArray language;
    QByteArray dictionary;

    explicit ModelPaths(const PocketSphinxModel& model)
        : acoustic(model.acousticModel.toLocal8Bit())
        , language(model.languageModel.toLocal8Bit())
        , dictionary(model.dictionary.toLocal8Bit())
    {
    }

    cmd_ln_t* makeConfig() const
    {
        // PocketSphinx writes hundreds of lines to standard error unless told otherwise.
        return cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", acoustic.constData(), "-lm", language.constData(),
                           "-dict", dictionary.constData(), "-logfn", "/dev/null", nullptr);
    }
};

// PocketSphinx ends the whole process when a model file is malformed. A model the user installed
// is therefore tried first in a forked child, which may die in our place; a child that neither
// succeeds nor dies within the limit counts as a failure too.
bool loadsInChildProcess(const ModelPaths& paths)
{
    const pid_t child = fork();
    if (child == 0) {
        cmd_ln_t* config = paths.makeConfig();
        _exit(config && ps_init(config) ? 0 : 1);
    }
    if (child < 0)
        return false;
    int status = 0;
    for (int waited = 0; waitpid(child, &status, WNOHANG) == 0; waited += 20) {
        if (waited > 20000) {
            kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}

PocketSphinxDecoder::PocketSphinxDecoder(PocketSphinxModel model, ps_decoder_s* decoder, cmd_ln_s* config)
    : m_model(std::move(model)), m_decoder(decoder), m_config(config)
{
}

PocketSphinxDecoder::~PocketSphinxDecoder()
{
    ps_free(m_decoder);
    cmd_ln_free_r(m_config);
}

std::unique_ptr<PocketSphinxDecoder> PocketSphinxDecoder::load(const PocketSphinxModel& model)
{
    QElapsedTimer clock;
    clock.start();
    const ModelPaths paths(model);
    if (!model.isShippedWithSystem() && !loadsInChildProcess(paths)) {
        qCWarning(lcSpeech) << "the speech model in" << model.acousticModel << "does not load";
        return nullptr;
    }
    cmd_ln_t* config = paths.makeConfig();
    if (!config) {
        qCWarning(lcSpeech) << "PocketSphinx rejected the configuration for" << model.acousticModel;
        return nullptr;
    }
    ps_decoder_t* decoder = ps_init(config);
    if (!decoder) {
        qCWarning(lcSpeech) << "PocketSphinx could not load the model" << model.acousticModel << model.languageModel
                            << model.dictionary;
        cmd_ln_free_r(config);
        return nullptr;
    }
    qCInfo(lcSpeech) << "PocketSphinx model loaded in" << clock.elapsed() << "ms from" << model.acousticModel;
    return std::unique_ptr<PocketSphinxDecoder>(new PocketSphinxDecoder(model, decoder, config));
}

std::unique_ptr<PocketSphinxDecoder> PocketSphinxDecoder::acquire(const PocketSphinxModel& model)
{
    {
        std::lock_guard lock(kept().mutex);
        if (kept().decoder && kept().decoder->m_model == model)
            return std::move(kept().decoder);
    }
    return load(model);
}

void PocketSphinxDecoder::keepForNextDictation(std::unique_ptr<PocketSphinxDecoder> decoder)
{
    if (!decoder || decoder->inUtterance())
        return;
    std::unique_ptr<PocketSphinxDecoder> replaced;
    std::lock_guard lock(kept().mutex);
    replaced = std::exchange(kept().decoder, std::move(decoder));
}

bool PocketSphinxDecoder::startUtterance()
{
    m_inUtterance = ps_start_utt(m_decoder) >= 0;
    return m_inUtterance;
}

bool PocketSphinxDecoder::process(std::span<const qint16> samples)
{
    return ps_process_raw(m_decoder, samples.data(), samples.size(), FALSE, FALSE) >= 0;
}

bool PocketSphinxDecoder::endUtterance()
{
    m_inUtterance = false;
    return ps_end_utt(m_decoder) >= 0;
}

QString PocketSphinxDecoder::hypothesis()
{
    int32 score = 0;
    const char* text = ps_get_hyp(m_decoder, &score);
    return text ? QString::fromUtf8(text) : QString();
}
