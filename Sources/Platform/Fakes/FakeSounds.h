#pragma once

#include "Platform/Sounds.h"

#include <QStringList>

// Records the names of the sounds played, in order.
class FakeSounds final : public Sounds {
public:
    QStringList played;

    void play(const QString& name) override { played << name; }
};
