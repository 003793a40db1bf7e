#include "Media/AudioExtractor.h"
#include "Media/AudioExtractorError.h"
#include "Platform/Fakes/FakeMediaReader.h"
#include "Platform/Linux/Media/FFmpegMediaReader.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QtEndian>

#include <gtest/gtest.h>

#include <cmath>

namespace {

// Fixtures are made here at test time from the shared speech samples, with the ffmpeg program.
QString fixture(const QString& name, QStringList arguments)
{
    const QString path = QDir::tempPath() + QStringLiteral("/media/") + name;
    QDir().mkpath(QFileInfo(path).path());
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"), QStringList{"-hide_banner", "-loglevel", "error", "-y"} + arguments << path);
    EXPECT_TRUE(ffmpeg.waitForFinished(120000) && ffmpeg.exitCode() == 0) << ffmpeg.readAllStandardError().constData();
    return path;
}

const QString kSpeech = TestSupport::testDataPath(QStringLiteral("speech/jfk.wav"));
const QString kNoTrack = QStringLiteral("O arquivo não contém trilha de áudio.");

// What the user would read, or "extracted".
QString extract(const QString& source, const QString& destination, FakeMediaReader* reader = nullptr, std::function<bool()> shouldStop = {},
    quint64 limit = AudioExtractor::maxDataBytes)
{
    try {
        FFmpegMediaReader real;
        AudioExtractor::extractWAV(reader ? static_cast<MediaReader&>(*reader) : real, source, destination, shouldStop, limit);
    } catch (const Error& error) {
        return error.description();
    }
    return QStringLiteral("extracted");
}

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The samples after a WAV's "data" mark, whatever chunks come before it.
std::vector<qint16> samplesOf(const QString& path)
{
    const QByteArray bytes = contents(path);
    const QByteArray pcm = bytes.mid(bytes.indexOf("data") + 8);
    std::vector<qint16> samples(size_t(pcm.size() / 2));
    qFromLittleEndian<qint16>(pcm.constData(), qsizetype(samples.size()), samples.data());
    return samples;
}

// The header's data size, after checking every field whisper-cli relies on.
qint64 checkedDataSize(const QString& path)
{
    const TestSupport::WavInfo info = TestSupport::readWav(path);
    EXPECT_TRUE(info.valid) << "RIFF size or data size disagree with the file's length";
    EXPECT_EQ(std::tuple(info.format, info.channels, info.sampleRate, info.bitsPerSample), std::tuple(1, 1, 16000, 16));
    const QByteArray header = contents(path).left(36);
    EXPECT_EQ(qFromLittleEndian<quint32>(header.constData() + 28), 32000u);
    EXPECT_EQ(qFromLittleEndian<quint16>(header.constData() + 32), 2u);
    return info.dataBytes;
}

// How closely two recordings rise and fall together (loudness every 50 ms), from -1 to 1: the same
// speech through any codec stays near 1, a tone or other speech does not.
double sameSpeech(const std::vector<qint16>& a, const std::vector<qint16>& b)
{
    const size_t window = 800, n = std::min(a.size(), b.size()) / window;
    double sx = 0, sy = 0, sxx = 0, syy = 0, sxy = 0;
    for (size_t i = 0; i < n; ++i) {
        double x = 0, y = 0;
        for (size_t j = i * window; j < (i + 1) * window; ++j) {
            x += std::abs(a[j]);
            y += std::abs(b[j]);
        }
        sx += x;
        sy += y;
        sxx += x * x;
        syy += y * y;
        sxy += x * y;
    }
    return (double(n) * sxy - sx * sy) / std::sqrt((double(n) * sxx - sx * sx) * (double(n) * syy - sy * sy));
}

} // namespace

// Every container and codec gives the first audio track, as 16 kHz mono with a correct header.
TEST(AudioExtractorTest, DecodesTheFirstAudioTrackOfAnyFormat)
{
    const QStringList tone{"-f", "lavfi", "-i", "sine=frequency=440:duration=3"};
    const QStringList video{"-f", "lavfi", "-i", "testsrc=size=64x48:rate=5:duration=11"};
    const struct {
        QString name;
        QStringList arguments;
        double seconds;
    } cases[] = {
        {"duas faixas.mp4", QStringList{"-i", kSpeech} + tone + QStringList{"-map", "0:a", "-map", "1:a", "-c:a", "aac"}, 11.0},
        {"tom primeiro.mp4", tone + QStringList{"-i", kSpeech, "-map", "0:a", "-map", "1:a", "-c:a", "aac"}, 3.0},
        {"filme.mkv", video + QStringList{"-i", kSpeech, "-ac", "2", "-ar", "48000", "-c:v", "mpeg4", "-c:a", "libvorbis"}, 11.0},
        {"pasta com espaço/canção 'de' \"ninar\".mp3", {"-i", kSpeech, "-ar", "44100", "-c:a", "libmp3lame"}, 11.0},
        {"fala.ogg", {"-i", kSpeech, "-c:a", "libopus"}, 11.0},
        {"vazio.wav", {"-f", "lavfi", "-i", "anullsrc=r=44100:cl=stereo", "-t", "0"}, 0.0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name.toStdString());
        const QString source = fixture(c.name, c.arguments);
        const QString destination = source + QStringLiteral(".wav");
        ASSERT_EQ(extract(source, destination), "extracted");
        EXPECT_NEAR(double(checkedDataSize(destination)) / 32000, c.seconds, 0.1);
        if (c.seconds == 11.0) {
            EXPECT_GT(sameSpeech(samplesOf(destination), samplesOf(kSpeech)), 0.9);
        } else if (c.seconds == 0) {
            EXPECT_EQ(QFileInfo(destination).size(), 44);
        }
    }
}

// Audio already in the target form comes through untouched, replacing whatever the file held.
TEST(AudioExtractorTest, KeepsTheSamplesOfAWavAlreadyInShapeAndReplacesTheDestination)
{
    const QString destination = QDir::tempPath() + QStringLiteral("/replaced.wav");
    ASSERT_TRUE(TestSupport::writeFile(destination, QByteArray(3'000'000, '\xff')));
    ASSERT_EQ(extract(kSpeech, destination), "extracted");
    EXPECT_EQ(checkedDataSize(destination), QFileInfo(destination).size() - 44);
    EXPECT_EQ(samplesOf(destination), samplesOf(kSpeech));
}

TEST(AudioExtractorTest, UnusableSourcesFailWithAMessageTheUserCanRead)
{
    const QString text = QDir::tempPath() + QStringLiteral("/notas.mp4");
    ASSERT_TRUE(TestSupport::writeFile(text, "Lista de compras: arroz, feijão, café.\n"));
    const QString whole = fixture("inteiro.mp4", {"-i", kSpeech, "-c:a", "aac", "-movflags", "+faststart"});
    const QString truncated = QDir::tempPath() + QStringLiteral("/cortado.mp4");
    ASSERT_TRUE(TestSupport::writeFile(truncated, contents(whole).left(QFileInfo(whole).size() * 6 / 10)));
    const struct {
        QString source;
        QString message;
    } cases[] = {
        {fixture("só vídeo.mp4", {"-f", "lavfi", "-i", "testsrc=size=64x48:rate=5:duration=1", "-c:v", "mpeg4"}), kNoTrack},
        {text, kNoTrack},
        {QDir::tempPath() + QStringLiteral("/não existe.mp4"), kNoTrack},
        {truncated, QStringLiteral("Falha ao extrair o áudio: o arquivo está incompleto ou corrompido")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.source.toStdString());
        const QString destination = c.source + QStringLiteral(".wav");
        EXPECT_EQ(extract(c.source, destination), c.message);
        // A track that fails part-way keeps what was decoded, under a header that claims nothing.
        const bool decodedSome = c.source == truncated;
        EXPECT_EQ(QFileInfo::exists(destination), decodedSome);
        if (decodedSome) {
            EXPECT_EQ(TestSupport::readWav(destination).dataBytes, 0);
            EXPECT_GT(QFileInfo(destination).size(), 44 + 3 * 32000);
        }
    }
}

// What the decoder reports, a cancel, the WAV size limit and a destination that cannot be written,
// scripted through a fake decoder of five 200-byte chunks.
TEST(AudioExtractorTest, FollowsTheDecoderTheCancelTheSizeLimitAndTheDestination)
{
    const struct {
        QString what;
        std::optional<QString> startFailure = {}, failureAtEnd = {};
        int stopAfter = -1;
        quint64 limit = 1000;
        QString message;
        size_t read = 5;
        qint64 onDisk = 0, headerSize = 0; // data bytes after the header, and what the header says
        QString destination = {};
    } cases[] = {
        {.what = "start fails", .startFailure = "", .message = "Falha ao extrair o áudio: desconhecida", .read = 0, .onDisk = -1},
        {.what = "fails at the end",
            .failureAtEnd = "disco removido",
            .message = "Falha ao extrair o áudio: disco removido",
            .onDisk = 1000},
        {.what = "at the limit", .message = "extracted", .onDisk = 1000, .headerSize = 1000},
        {.what = "past the limit",
            .limit = 600,
            .message = "Falha ao extrair o áudio: o áudio passa de 37 horas, o máximo de um arquivo WAV",
            .read = 4,
            .onDisk = 600},
        {.what = "cancelled", .stopAfter = 2, .message = "extracted", .read = 2, .onDisk = 400},
        {.what = "no folder",
            .message = "Não foi possível gravar o áudio extraído: No such file or directory",
            .read = 0,
            .onDisk = -1,
            .destination = QDir::tempPath() + "/sem pasta/audio.wav"},
        {.what = "disk full",
            .message = "Não foi possível gravar o áudio extraído: No space left on device",
            .onDisk = -1,
            .destination = "/dev/full"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what.toStdString());
        FakeMediaReader reader;
        reader.chunks.assign(5, std::vector<qint16>(100, 7));
        reader.startFailure = c.startFailure;
        reader.failureAtEnd = c.failureAtEnd;
        const QString destination = c.destination.isEmpty() ? QDir::tempPath() + "/fake " + c.what + ".wav" : c.destination;
        const auto stop = [&] { return c.stopAfter >= 0 && reader.chunksDelivered >= size_t(c.stopAfter); };
        EXPECT_EQ(extract("filme.mkv", destination, &reader, stop, c.limit), c.message);
        EXPECT_EQ(reader.chunksDelivered, c.read);
        EXPECT_EQ(QFileInfo(destination).size(), c.onDisk < 0 ? 0 : 44 + c.onDisk);
        EXPECT_EQ(TestSupport::readWav(destination).dataBytes, c.headerSize);
    }
}
