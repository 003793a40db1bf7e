#pragma once

#include <QSet>
#include <QString>
#include <QStringList>

// What Whisper writes for silence, music and noise it was trained on subtitles of ("Obrigado por
// assistir", "Legendas pela comunidade Amara.org"). A transcript that is nothing but one of them is
// no dictation; the phrase inside real text is. The list lives in resources/phantom-phrases.txt.
class PhantomPhrases {
public:
    explicit PhantomPhrases(const QStringList& phrases);

    // The bundled list, read once; safe to use from any thread.
    static const PhantomPhrases& bundled();

    // The transcript, or an empty one when all of it is a known phantom phrase.
    QString withoutPhantom(const QString& transcript) const;
    bool isPhantom(const QString& transcript) const;

private:
    QSet<QString> m_phrases;
};
