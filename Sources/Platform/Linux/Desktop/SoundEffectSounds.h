#pragma once

#include "Platform/Sounds.h"

#include <QHash>
#include <QObject>

class QSoundEffect;

// The bundled WAV sounds played through Qt Multimedia. Each effect is loaded once, when the
// player is made, so the first "Tink" of a dictation is not late.
class SoundEffectSounds final : public QObject, public Sounds {
    Q_OBJECT
public:
    SoundEffectSounds();
    ~SoundEffectSounds() override;

    void play(const QString& name) override;

private:
    QHash<QString, QSoundEffect*> m_effects;
};
