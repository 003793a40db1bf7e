#pragma once

#include <pocketsphinx.h>

// The configuration of one model. voxaria-model-check builds it here too, so the check loads a
// model exactly as Voxaria will.
inline cmd_ln_t* makePocketSphinxConfig(const char* acousticModel, const char* languageModel, const char* dictionary)
{
    // PocketSphinx writes hundreds of lines to standard error unless told otherwise.
    return cmd_ln_init(
        nullptr, ps_args(), TRUE, "-hmm", acousticModel, "-lm", languageModel, "-dict", dictionary, "-logfn", "/dev/null", nullptr);
}
