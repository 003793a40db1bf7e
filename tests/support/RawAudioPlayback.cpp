#include "RawAudioPlayback.h"

#include "TestSupport.h"

#include <QProcess>
#include <QRegularExpression>

#include <algorithm>
#include <numeric>
#include <vector>

namespace TestSupport {

bool playRawIntoMicrophone(const QString& path, int sampleRate, int channels)
{
    QProcess player;
    player.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    player.start(QStringLiteral("paplay"), {QStringLiteral("--raw"), QStringLiteral("--rate=%1").arg(sampleRate),
                                            QStringLiteral("--channels=%1").arg(channels),
                                            QStringLiteral("--format=s16le"), QStringLiteral("--latency-msec=20"), path});
    return waitUntil([&] { return player.state() == QProcess::NotRunning; }, std::chrono::minutes(1))
        && player.exitStatus() == QProcess::NormalExit && player.exitCode() == 0;
}

QStringList normalisedWords(const QString& text)
{
    static const QRegularExpression notWordCharacter(QStringLiteral("[^\\w']+"));
    return text.toLower().split(notWordCharacter, Qt::SkipEmptyParts);
}

double wordErrorRate(const QString& reference, const QString& hypothesis)
{
    const QStringList expected = normalisedWords(reference);
    const QStringList heard = normalisedWords(hypothesis);
    if (expected.isEmpty())
        return heard.isEmpty() ? 0.0 : 1.0;
    // One row of the edit-distance table at a time.
    std::vector<int> row(heard.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (int i = 1; i <= expected.size(); ++i) {
        int diagonal = row[0];
        row[0] = i;
        for (int j = 1; j <= heard.size(); ++j) {
            const int substitution = diagonal + (expected[i - 1] == heard[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, substitution});
        }
    }
    return double(row[heard.size()]) / expected.size();
}

}
