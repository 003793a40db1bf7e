// voxaria-model-check ACOUSTIC_MODEL LANGUAGE_MODEL DICTIONARY
// Loads a PocketSphinx model and exits with 0 when it loads, 1 when PocketSphinx refuses it.
// PocketSphinx ends the process that loads a malformed model file (or crashes in it), so Voxaria
// loads a model the user installed here first, in a process of its own that may die in its place.

#include "Platform/Linux/Speech/PocketSphinxConfig.h"

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fputs("usage: voxaria-model-check ACOUSTIC_MODEL LANGUAGE_MODEL DICTIONARY\n", stderr);
        return 2;
    }
    cmd_ln_t* config = makePocketSphinxConfig(argv[1], argv[2], argv[3]);
    if (!config)
        return 1;
    ps_decoder_t* decoder = ps_init(config);
    const bool loads = decoder != nullptr;
    // Freed although the process ends: a build with the leak checker would fail the check otherwise.
    if (loads)
        ps_free(decoder);
    cmd_ln_free_r(config);
    return loads ? 0 : 1;
}
