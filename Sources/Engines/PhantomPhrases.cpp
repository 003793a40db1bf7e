#include "PhantomPhrases.h"

#include "Shared/Logging.h"

#include <QFile>

namespace {

// Compared without case, accents or punctuation, and with single spaces: Whisper writes the same
// phrase as "Obrigado!", "obrigado." or "Obrigado".
QString normalised(const QString& text)
{
    const QString decomposed = text.toCaseFolded().normalized(QString::NormalizationForm_D);
    QString plain;
    plain.reserve(decomposed.size());
    for (const QChar c : decomposed) {
        if (c.isMark())
            continue;
        plain += c.isLetterOrNumber() ? c : QLatin1Char(' ');
    }
    return plain.simplified();
}

QStringList bundledLines()
{
    QFile file(QStringLiteral(":/engines/phantom-phrases.txt"));
    if (!file.open(QIODevice::ReadOnly)) {
        qCWarning(lcWhisper) << "the phantom phrase list is missing";
        return {};
    }
    return QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

}

// The list is compiled into the static core library, whose resource registration the linker drops
// unless something refers to it. Outside any namespace, as the macro requires.
static void registerBundledResources()
{
    Q_INIT_RESOURCE(voxaria);
}

PhantomPhrases::PhantomPhrases(const QStringList& phrases)
{
    for (const QString& phrase : phrases) {
        if (QString key = normalised(phrase); !key.isEmpty())
            m_phrases.insert(key);
    }
}

const PhantomPhrases& PhantomPhrases::bundled()
{
    static const PhantomPhrases list = [] {
        registerBundledResources();
        return PhantomPhrases(bundledLines());
    }();
    return list;
}

bool PhantomPhrases::isPhantom(const QString& transcript) const
{
    return m_phrases.contains(normalised(transcript));
}

QString PhantomPhrases::withoutPhantom(const QString& transcript) const
{
    if (!isPhantom(transcript))
        return transcript;
    qCInfo(lcWhisper) << "dropped a transcript Whisper makes up on silence or noise:" << transcript;
    return {};
}
