#pragma once

#include "Platform/Alerts.h"

// Alerts as QMessageBox dialogs.
class MessageBoxAlerts final : public Alerts {
public:
    int runModal(const Alert& alert) override;
};
