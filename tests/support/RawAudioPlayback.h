#pragma once

#include <QString>
#include <QStringList>

namespace TestSupport {

// Plays headerless 16-bit little-endian PCM (e.g. PocketSphinx's test recordings) into the virtual
// microphone, keeping the event loop running until it has been played.
bool playRawIntoMicrophone(const QString& path, int sampleRate = 16000, int channels = 1);

// Word error rate of `hypothesis` against `reference`, both normalised to lower-case words without
// punctuation: (substitutions + deletions + insertions) / reference words.
double wordErrorRate(const QString& reference, const QString& hypothesis);
QStringList normalisedWords(const QString& text);

}
