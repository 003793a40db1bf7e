#include "DesktopApps.h"
#include "Media/AudioExtractor.h"
#include "Media/AudioExtractorError.h"
#include "Platform/Fakes/FakeMediaReader.h"
#include "Platform/Linux/Media/FFmpegMediaReader.h"
#include "TestSupport.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QtEndian>

#include <gtest/gtest.h>

#include <cmath>

namespace {

const auto fixture = [](const QString& name, const QStringList& arguments) {
    const QString path = QDir::tempPath() + "/media/" + name;
    QDir().mkpath(QFileInfo(path).path());
    QProcess ffmpeg;
    ffmpeg.start("ffmpeg", QStringList{"-hide_banner", "-loglevel", "error", "-y"} + arguments << path);
    EXPECT_TRUE(ffmpeg.waitForFinished(120000) && ffmpeg.exitCode() == 0) << ffmpeg.readAllStandardError().constData();
    return path;
};

const QString kSpeech = TestSupport::testDataPath("speech/jfk.wav");
const QString kNoTrack = "O arquivo não contém trilha de áudio.";

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
    return "extracted";
}

// The samples after a WAV's "data" mark, whatever chunks come before it.
const auto samplesOf = [](const QString& path) {
    const QByteArray bytes = DesktopApps::readAll(path);
    const QByteArray pcm = bytes.mid(bytes.indexOf("data") + 8);
    std::vector<qint16> samples(size_t(pcm.size() / 2));
    qFromLittleEndian<qint16>(pcm.constData(), qsizetype(samples.size()), samples.data());
    return samples;
};

// The header's data size, after checking every field whisper-cli relies on.
const auto checkedDataSize = [](const QString& path) {
    const TestSupport::WavInfo info = TestSupport::readWav(path);
    EXPECT_TRUE(info.valid) << "RIFF size or data size disagree with the file's length";
    EXPECT_EQ(std::tuple(info.format, info.channels, info.sampleRate, info.bitsPerSample), std::tuple(1, 1, 16000, 16));
    const QByteArray header = DesktopApps::readAll(path).left(36);
    EXPECT_EQ(qFromLittleEndian<quint32>(header.constData() + 28), 32000u);
    EXPECT_EQ(qFromLittleEndian<quint16>(header.constData() + 32), 2u);
    return info.dataBytes;
};

// How closely two recordings' loudness rises and falls together (-1…1): near 1 for the same speech.
const auto sameSpeech = [](const std::vector<qint16>& a, const std::vector<qint16>& b) {
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
};

} // namespace

// Every container and codec gives the first audio track, as 16 kHz mono with a correct header,
// replacing whatever the destination held; audio already in that form comes through untouched.
// Unusable sources say why; a track that fails part-way keeps what was decoded under a header that
// claims nothing.
TEST(AudioExtractorTest, DecodesTheFirstAudioTrackOfAnyFormatOrSaysWhyNot)
{
    const QStringList tone{"-f", "lavfi", "-i", "sine=frequency=440:duration=3"};
    const QStringList video{"-f", "lavfi", "-i", "testsrc=size=64x48:rate=5:duration=11"};
    const QString text = QDir::tempPath() + "/notas.mp4", truncated = QDir::tempPath() + "/cortado.mp4";
    ASSERT_TRUE(TestSupport::writeFile(text, "Lista de compras: arroz, feijão, café.\n"));
    const QString whole = fixture("inteiro.mp4", {"-i", kSpeech, "-c:a", "aac", "-movflags", "+faststart"});
    ASSERT_TRUE(TestSupport::writeFile(truncated, DesktopApps::readAll(whole).left(QFileInfo(whole).size() * 6 / 10)));
    const struct {
        QString source;
        double seconds; // -1: nothing extracted
        QString message = "extracted";
    } cases[] = {
        {fixture("duas faixas.mp4", QStringList{"-i", kSpeech} + tone + QStringList{"-map", "0:a", "-map", "1:a", "-c:a", "aac"}), 11.0},
        {fixture("tom primeiro.mp4", tone + QStringList{"-i", kSpeech, "-map", "0:a", "-map", "1:a", "-c:a", "aac"}), 3.0},
        {fixture("filme.mkv", video + QStringList{"-i", kSpeech, "-ac", "2", "-ar", "48000", "-c:v", "mpeg4", "-c:a", "libvorbis"}), 11.0},
        {fixture("pasta com espaço/canção 'de' \"ninar\".mp3", {"-i", kSpeech, "-ar", "44100", "-c:a", "libmp3lame"}), 11.0},
        {fixture("vazio.wav", {"-f", "lavfi", "-i", "anullsrc=r=44100:cl=stereo", "-t", "0"}), 0.0},
        {fixture("fala.wav", {"-i", kSpeech, "-c:a", "copy"}), 11.0},
        {fixture("só vídeo.mp4", {"-f", "lavfi", "-i", "testsrc=size=64x48:rate=5:duration=1", "-c:v", "mpeg4"}), -1, kNoTrack},
        {text, -1, kNoTrack},
        {QDir::tempPath() + "/não existe.mp4", -1, kNoTrack},
        {truncated, -1, "Falha ao extrair o áudio: o arquivo está incompleto ou corrompido"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.source.toStdString());
        const QString destination = c.source + ".wav";
        ASSERT_TRUE(c.seconds < 0 || TestSupport::writeFile(destination, QByteArray(3'000'000, '\xff')));
        ASSERT_EQ(extract(c.source, destination), c.message);
        if (c.source == truncated) {
            EXPECT_EQ(TestSupport::readWav(destination).dataBytes, 0);
            EXPECT_GT(QFileInfo(destination).size(), 44 + 3 * 32000);
        } else if (c.seconds < 0) {
            EXPECT_FALSE(QFileInfo::exists(destination));
        } else {
            EXPECT_NEAR(double(checkedDataSize(destination)) / 32000, c.seconds, 0.1);
        }
        if (c.source.endsWith("fala.wav")) {
            EXPECT_EQ(samplesOf(destination), samplesOf(kSpeech));
        } else if (c.seconds == 11.0) {
            EXPECT_GT(sameSpeech(samplesOf(destination), samplesOf(kSpeech)), 0.9);
        } else if (c.seconds == 0) {
            EXPECT_EQ(QFileInfo(destination).size(), 44);
        }
    }
}

// A fake decoder of five 200-byte chunks.
TEST(AudioExtractorTest, FollowsTheDecoderTheCancelTheSizeLimitAndTheDestination)
{
    const QString failed = "Falha ao extrair o áudio: ", unwritable = "Não foi possível gravar o áudio extraído: ";
    const struct {
        QString what, message;
        size_t read; // chunks
        qint64 onDisk, headerSize; // data bytes after the header (-1: no file), and what the header says
        quint64 limit = 1000;
        int stopAfter = -1;
        std::optional<QString> startFailure = {}, failureAtEnd = {};
        QString destination = {};
    } cases[] = {
        {"start fails", failed + "desconhecida", 0, -1, 0, 1000, -1, ""},
        {"fails at the end", failed + "disco removido", 5, 1000, 0, 1000, -1, {}, "disco removido"},
        {"at the limit", "extracted", 5, 1000, 1000},
        {"past the limit", failed + "o áudio passa de 37 horas, o máximo de um arquivo WAV", 4, 600, 0, 600},
        {"cancelled", "extracted", 2, 400, 0, 1000, 2},
        {"no folder", unwritable + "No such file or directory", 0, -1, 0, 1000, -1, {}, {}, QDir::tempPath() + "/sem pasta/audio.wav"},
        {"disk full", unwritable + "No space left on device", 5, -1, 0, 1000, -1, {}, {}, "/dev/full"},
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
