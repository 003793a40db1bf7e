#pragma once

#include "PocketSphinxModel.h"

#include <QString>
#include <QtGlobal>

#include <memory>
#include <span>

struct ps_decoder_s;
struct cmd_ln_s;

// One loaded PocketSphinx decoder. Loading costs about 0.5 s and 90 MB, so the decoder of the last
// dictation is kept for the next one: a second dictation decodes from its first buffer and the
// decoder's noise normalisation stays adapted to the user's microphone.
class PocketSphinxDecoder {
public:
    ~PocketSphinxDecoder();
    PocketSphinxDecoder(const PocketSphinxDecoder&) = delete;
    PocketSphinxDecoder& operator=(const PocketSphinxDecoder&) = delete;

    // The decoder kept from an earlier dictation when it has this model, else a freshly loaded one;
    // nothing when the model cannot be loaded. Runs on a worker: it may take half a second.
    static std::unique_ptr<PocketSphinxDecoder> acquire(const PocketSphinxModel& model);
    // Keeps a decoder whose utterance has ended for the next dictation, replacing any kept one.
    static void keepForNextDictation(std::unique_ptr<PocketSphinxDecoder> decoder);

    bool startUtterance();
    bool process(std::span<const qint16> samples);
    bool endUtterance();
    bool inUtterance() const { return m_inUtterance; }
    // The best hypothesis of the current or the last utterance, words separated by spaces.
    QString hypothesis();

private:
    PocketSphinxDecoder(PocketSphinxModel model, ps_decoder_s* decoder, cmd_ln_s* config);
    static std::unique_ptr<PocketSphinxDecoder> load(const PocketSphinxModel& model);

    PocketSphinxModel m_model;
    ps_decoder_s* m_decoder;
    cmd_ln_s* m_config;
    bool m_inUtterance = false;
};
