#include "PocketSphinxDecoder.h"

#include "PocketSphinxConfig.h"
#include "PocketSphinxModelCheck.h"
#include "Shared/Logging.h"

#include <QElapsedTimer>

#include <mutex>

namespace {

struct KeptDecoder {
    std::mutex mutex;
    std::unique_ptr<PocketSphinxDecoder> decoder;
};

// Never destroyed: freeing some 100 MB of model would only delay the exit, and a recogniser held by
// a static object may still hand its decoder back then.
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

    cmd_ln_t* makeConfig() const { return makePocketSphinxConfig(acoustic.constData(), language.constData(), dictionary.constData()); }
};

// The system's models come with its package; a model the user installed may be malformed, and
// PocketSphinx would end this process on it.
bool mayLoad(const PocketSphinxModel& model, const std::function<bool()>& stopRequested)
{
    if (model.isShippedWithSystem())
        return true;
    switch (PocketSphinxModelCheck::of(model, stopRequested)) {
    case PocketSphinxModelCheck::Verdict::loads:
    case PocketSphinxModelCheck::Verdict::unchecked: return true;
    case PocketSphinxModelCheck::Verdict::refused:
        qCWarning(lcSpeech) << "the speech model in" << model.acousticModel << "does not load";
        return false;
    case PocketSphinxModelCheck::Verdict::stopped: return false;
    }
    return false;
}

}

PocketSphinxDecoder::PocketSphinxDecoder(PocketSphinxModel model, ps_decoder_s* decoder, cmd_ln_s* config)
    : m_model(std::move(model))
    , m_decoder(decoder)
    , m_config(config)
{
}

PocketSphinxDecoder::~PocketSphinxDecoder()
{
    ps_free(m_decoder);
    cmd_ln_free_r(m_config);
}

std::unique_ptr<PocketSphinxDecoder> PocketSphinxDecoder::load(const PocketSphinxModel& model, const std::function<bool()>& stopRequested)
{
    QElapsedTimer clock;
    clock.start();
    if (!mayLoad(model, stopRequested))
        return nullptr;
    const ModelPaths paths(model);
    cmd_ln_t* config = paths.makeConfig();
    if (!config) {
        qCWarning(lcSpeech) << "PocketSphinx rejected the configuration for" << model.acousticModel;
        return nullptr;
    }
    ps_decoder_t* decoder = ps_init(config);
    if (!decoder) {
        qCWarning(lcSpeech) << "PocketSphinx could not load the model" << model.acousticModel << model.languageModel << model.dictionary;
        cmd_ln_free_r(config);
        return nullptr;
    }
    qCInfo(lcSpeech) << "PocketSphinx model loaded in" << clock.elapsed() << "ms from" << model.acousticModel;
    return std::unique_ptr<PocketSphinxDecoder>(new PocketSphinxDecoder(model, decoder, config));
}

std::unique_ptr<PocketSphinxDecoder> PocketSphinxDecoder::acquire(
    const PocketSphinxModel& model, const std::function<bool()>& stopRequested)
{
    {
        std::lock_guard lock(kept().mutex);
        if (kept().decoder && kept().decoder->m_model == model)
            return std::move(kept().decoder);
    }
    return load(model, stopRequested);
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
