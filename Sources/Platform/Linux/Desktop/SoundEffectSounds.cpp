#include "SoundEffectSounds.h"

#include "Shared/Logging.h"

#include <QSoundEffect>
#include <QUrl>

// The sounds are compiled into the static core library, whose resource registration the linker
// drops unless something refers to it. Outside any namespace, as the macro requires.
static void registerBundledSounds()
{
    Q_INIT_RESOURCE(voxaria);
}

SoundEffectSounds::SoundEffectSounds()
{
    registerBundledSounds();
    for (const char* name : {"Tink", "Pop", "Basso", "Glass"}) {
        auto* effect = new QSoundEffect(this);
        effect->setSource(QUrl(QStringLiteral("qrc:/sounds/%1.wav").arg(QLatin1String(name))));
        connect(effect, &QSoundEffect::statusChanged, this, [effect, name] {
            if (effect->status() == QSoundEffect::Error)
                qCWarning(lcDictation) << "the sound" << name << "cannot be played";
        });
        m_effects.insert(QLatin1String(name), effect);
    }
}

SoundEffectSounds::~SoundEffectSounds() = default;

void SoundEffectSounds::play(const QString& name)
{
    QSoundEffect* effect = m_effects.value(name);
    if (!effect) {
        qCWarning(lcDictation) << "no sound named" << name;
        return;
    }
    effect->play();
}
