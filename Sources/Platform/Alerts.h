#pragma once

#include <QList>
#include <QString>

#include <memory>

// Modal alerts: a message, an informative text and buttons in order. The application is brought to
// the front first, so the alert is never hidden behind the window the user was working in.
class Alerts {
public:
    struct Button {
        enum class Role {
            standard,
            destructive, // the action cannot be undone; drawn as such where the platform can
            cancel, // also chosen by Escape
        };
        QString title;
        Role role = Role::standard;
    };

    struct Alert {
        QString messageText;
        QString informativeText;
        // The first is the default button. Empty means the platform's single "OK" button.
        QList<Button> buttons;
    };

    virtual ~Alerts() = default;

    // Blocks in a nested event loop until the user answers; returns the index of the chosen button
    // in `alert.buttons` (0 for the default "OK" when there are none).
    virtual int runModal(const Alert& alert) = 0;
};
