#pragma once

#include <QString>

#include <memory>

// The short feedback sounds shipped with the app, by name: "Tink", "Pop", "Basso", "Glass". Playing returns at once; the sound runs on its
// own. Main thread only.
class Sounds {
public:
    virtual ~Sounds() = default;

    // An unknown name is logged and otherwise ignored.
    virtual void play(const QString& name) = 0;
};
