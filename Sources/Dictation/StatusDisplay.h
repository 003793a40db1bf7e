#pragma once

#include <QString>

// Where a dictation tells the user what is happening (on screen, the HUD); the controller decides
// what shows and for how long.
class StatusDisplay {
public:
    virtual ~StatusDisplay() = default;

    // Shows the status with the text under it (no text line when the text is empty).
    virtual void show(const QString& status, const QString& text) = 0;
    // Replaces the text; a hidden display stays hidden.
    virtual void update(const QString& text) = 0;
    virtual void hide() = 0;
};
