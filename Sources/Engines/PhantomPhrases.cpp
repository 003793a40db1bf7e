#include "PhantomPhrases.h"

#include "Shared/Logging.h"

#include <QFile>

#include <algorithm>
#include <vector>

namespace {

// What a phrase nobody dictates takes: no recording holds that much speech.
constexpr auto kNeverSaid = std::chrono::milliseconds::max();

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

PhantomPhrases::PhantomPhrases(const QStringList& lines)
{
    for (const QString& line : lines) {
        if (line.startsWith(QLatin1Char('#')))
            continue;
        const qsizetype bar = line.indexOf(QLatin1Char('|'));
        const QString key = normalised(line.left(bar));
        if (key.isEmpty())
            continue;
        const auto speech = bar < 0 ? kNeverSaid : std::chrono::milliseconds(line.mid(bar + 1).trimmed().toInt());
        m_phrases.insert(key, speech);
        m_longestPhrase = std::max(m_longestPhrase, key.count(QLatin1Char(' ')) + 1);
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

// The fewest milliseconds that saying the transcript's words as a run of phrases takes, phrase by
// phrase from its start; a phrase nobody says makes the whole run "never".
std::optional<std::chrono::milliseconds> PhantomPhrases::speechToSay(const QString& transcript) const
{
    const QStringList words = normalised(transcript).split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (words.isEmpty())
        return std::nullopt;
    // leastUpTo[i]: the speech that the first i words take, when they are phrases.
    std::vector<std::optional<std::chrono::milliseconds>> leastUpTo(size_t(words.size()) + 1);
    leastUpTo[0] = std::chrono::milliseconds(0);
    for (qsizetype end = 1; end <= words.size(); ++end) {
        for (qsizetype start = std::max<qsizetype>(0, end - m_longestPhrase); start < end; ++start) {
            const auto before = leastUpTo[size_t(start)];
            const auto phrase = m_phrases.constFind(words.mid(start, end - start).join(QLatin1Char(' ')));
            if (!before || phrase == m_phrases.cend())
                continue;
            const auto total = *phrase == kNeverSaid || *before == kNeverSaid ? kNeverSaid : *before + *phrase;
            auto& least = leastUpTo[size_t(end)];
            least = least ? std::min(*least, total) : total;
        }
    }
    return leastUpTo.back();
}

bool PhantomPhrases::isPhantom(const QString& transcript, std::chrono::milliseconds heardSpeech) const
{
    const std::optional<std::chrono::milliseconds> speech = speechToSay(transcript);
    return speech && heardSpeech < *speech;
}

QString PhantomPhrases::withoutPhantom(const QString& transcript, std::chrono::milliseconds heardSpeech) const
{
    if (!isPhantom(transcript, heardSpeech))
        return transcript;
    qCInfo(lcWhisper) << "dropped a transcript Whisper makes up on silence or noise:" << transcript;
    return {};
}
