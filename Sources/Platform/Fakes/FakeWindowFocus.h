#pragma once

#include "Platform/WindowFocus.h"

#include <QList>
#include <QPointer>
#include <QWidget>

// Records the windows kept from taking the focus.
class FakeWindowFocus final : public WindowFocus {
public:
    QList<QPointer<QWidget>> kept;

    void keepFromTakingFocus(QWidget& window) override { kept.append(&window); }
};
