#include "PocketSphinxDecoder.h"

#include "Logging.h"

#include <QElapsedTimer>

#include <pocketsphinx.h>

#include <mutex>

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
    const QByteArray acoustic = model.acousticModel.toLocal8Bit();
    const QByteArray language = model.languageModel.toLocal8Bit();
    const QByteArray dictionary = model.dictionary.toLocal8Bit();
    // PocketSphinx writes hundreds of lines to standard error unless told otherwise.
    cmd_ln_t* config = cmd_ln_init(nullptr, ps_args(), TRUE, "-hmm", acoustic.constData(), "-lm", language.constData(),
                                   "-dict", dictionary.constData(), "-logfn", "/dev/null", nullptr);
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
