#pragma once

#include "Platform/Alerts.h"

#include <QStringList>

#include <functional>

// Records every alert and answers from a script of button titles, in order.
class FakeAlerts final : public Alerts {
public:
    QList<Alert> shown;
    // Titles of the buttons to choose, one per coming alert. When the script runs dry, or names a
    // button the alert does not have, the alert is answered with its last button (usually
    // "Cancelar"), so a forgotten script never triggers a destructive action.
    QStringList answers;
    // Runs while an alert is open, as whatever the user does meanwhile.
    std::function<void(const Alert&)> whileShown;

    int runModal(const Alert& alert) override;
};
