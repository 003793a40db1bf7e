#pragma once

#include "PocketSphinxModel.h"

#include <QString>
#include <QtGlobal>

#include <functional>
#include <memory>
#include <span>

struct ps_decoder_s;
struct cmd_ln_s;

// One loaded PocketSphinx decoder. The decoder of the last dictation is kept for the next one.
// Measured with the en-US model: loading takes 0.45 s on an idle machine (1 s on a busy one) and
// adds about 99 MB resident (26 -> 125 MB). start() returns once the microphone captures either way
// (30-40 ms), but with a fresh decoder the first partial text came 2.5 s after start against 0.9 s
// with a kept one; freeing the decoder would give back only about half of that memory, as the
// allocator keeps the rest. A kept decoder also keeps its noise normalisation adapted to the
// user's microphone, which improves the first words of the next dictation.
class PocketSphinxDecoder {
public:
    ~PocketSphinxDecoder();
    PocketSphinxDecoder(const PocketSphinxDecoder&) = delete;
    PocketSphinxDecoder& operator=(const PocketSphinxDecoder&) = delete;

    // The decoder kept from an earlier dictation when it has this model, else a freshly loaded one;
    // nothing when the model cannot be loaded, or when `stopRequested` answers true while a model
    // the user installed is checked. Runs on a worker: it may take half a second.
    static std::unique_ptr<PocketSphinxDecoder> acquire(const PocketSphinxModel& model, const std::function<bool()>& stopRequested);
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
    static std::unique_ptr<PocketSphinxDecoder> load(const PocketSphinxModel& model, const std::function<bool()>& stopRequested);

    PocketSphinxModel m_model;
    ps_decoder_s* m_decoder;
    cmd_ln_s* m_config;
    bool m_inUtterance = false;
};
