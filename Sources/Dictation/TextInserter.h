#pragma once

#include "Platform/KeyPoster.h"
#include "Platform/Pasteboard.h"

#include <QString>

#include <chrono>
#include <memory>

// Types a finished dictation into the focused application the way a user pastes: the text goes on
// the clipboard, a synthetic Command-V (Control-V on Linux) follows, and later the clipboard gets
// back exactly what it held before, unless another program copied something meanwhile. Main thread
// only.
namespace TextInserter {

struct Delays {
    // Lets the clipboard settle before the target is asked to paste.
    std::chrono::milliseconds beforePaste{50};
    // Gives the target time to read the clipboard before it changes again.
    std::chrono::milliseconds beforeRestore{600};
};

// Where the text goes; the general clipboard and the system's key poster unless a test says else.
struct Target {
    std::shared_ptr<Pasteboard> pasteboard;
    std::shared_ptr<KeyPoster> keyPoster;
    Delays delays;

    static Target system();
};

// Returns at once; the paste and the restoration run later on the main thread (a restoration still
// ahead runs when the application quits). Nothing is reported: a failed paste leaves the clipboard
// restored all the same. Dictations in quick succession end with the clipboard the user had before
// the first.
void insert(const QString& text);
void insert(const QString& text, const Target& target);

}
