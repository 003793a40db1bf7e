#pragma once

#include "PocketSphinxModel.h"

#include <QString>

#include <chrono>
#include <functional>

// Loads a model the user installed in voxaria-model-check, a program of our own started with exec,
// before this process loads it: PocketSphinx ends the process that loads a malformed model file.
// Runs on the recogniser's worker; the check waits for the helper there, never on the main thread.
class PocketSphinxModelCheck {
public:
    enum class Verdict {
        loads,
        refused, // the helper refused the model, crashed on it or ran out of time
        unchecked, // the helper is missing or does not start: the model is loaded without the check
        stopped, // the recognition ended meanwhile
    };

    // The en-US model loads in the helper in 0.8 s on a busy machine, and in 3 s when four loads
    // share two busy cores; a refused model is known within a tenth of a second. Too short a limit
    // would call a good model broken, so a helper is only given up on when it is plainly stuck.
    static constexpr std::chrono::seconds timeLimit{10};

    // `stopRequested` is asked every tenth of a second; once it answers true the helper is killed.
    static Verdict of(const PocketSphinxModel& model, const std::function<bool()>& stopRequested);

    // $VOXARIA_MODEL_CHECK when set (the tests point it at the build's copy), else the copy
    // installed with the program: voxaria-model-check beside the executable.
    static QString helperPath();
};
