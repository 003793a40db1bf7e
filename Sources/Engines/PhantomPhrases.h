#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

#include <chrono>
#include <optional>

// What Whisper writes for silence, music and noise it was trained on subtitles of ("Obrigado por
// assistir", "Legendas pela comunidade Amara.org"). A transcript that is nothing but these phrases,
// once or repeated, is no dictation; a phrase inside real text is. Courtesy phrases people also say
// ("Obrigado.") are dropped only when less speech was heard than saying them takes. The list lives
// in resources/phantom-phrases.txt.
class PhantomPhrases {
public:
    // Lines as in the bundled list: a phrase, and "phrase | N" for a courtesy phrase that takes N ms
    // of voiced speech; lines starting with "#" are comments.
    explicit PhantomPhrases(const QStringList& lines);

    // The bundled list, read once; safe to use from any thread.
    static const PhantomPhrases& bundled();

    // The transcript, or an empty one when all of it is phantom phrases, given how much voiced
    // speech the recording held (none known: zero).
    QString withoutPhantom(const QString& transcript, std::chrono::milliseconds heardSpeech) const;
    bool isPhantom(const QString& transcript, std::chrono::milliseconds heardSpeech) const;

private:
    // The voiced speech it takes to say the transcript as phantom phrases, if it is made of them;
    // "never" for a phrase nobody dictates.
    std::optional<std::chrono::milliseconds> speechToSay(const QString& transcript) const;

    // Each phrase, normalised, with the speech it takes.
    QHash<QString, std::chrono::milliseconds> m_phrases;
    qsizetype m_longestPhrase = 0;
};
