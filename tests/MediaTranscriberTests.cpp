#include "DesktopApps.h"
#include "Engines/WhisperCliFeatures.h"
#include "Media/MediaTranscriber.h"
#include "Media/MediaTranscriberError.h"
#include "Platform/Linux/Media/FFmpegMediaReader.h"
#include "Shared/AppPaths.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

using namespace std::chrono_literals;
using namespace TestSupport;
using Source = MediaTranscriber::Source;

namespace {

const QString kTranscribing = "Transcrevendo… (vídeos longos podem levar alguns minutos)";

const auto scratch = [](const QString& name) { return AppPaths::dataFolder() + "/fixtures/" + name; };
const auto fakeYtDlp = [](const QString& suffix) { return AppPaths::dataFolder() + "/bin/yt-dlp" + suffix; };
const auto mediaFolders = [] { return QDir(AppPaths::temporaryFolder()).entryList({"voxaria-media-*"}, QDir::Dirs); };

// "700 audio.wav:600": the job folder's permission bits and each of its files'.
const auto permissions = [] {
    const auto bits
        = [](const QString& path) { return QString::number(int(std::filesystem::status(path.toStdString()).permissions()), 8); };
    QString answer;
    for (const QString& folder : mediaFolders()) {
        const QString path = AppPaths::temporaryFolder() + '/' + folder;
        answer += bits(path);
        for (const QString& file : QDir(path).entryList(QDir::Files))
            answer += ' ' + file + ':' + bits(path + '/' + file);
    }
    return answer;
};

const auto readLines = [](const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts) : QStringList();
};

// One job's statuses ("text@progress") and answer ("= text[ + srt]" or "! error"), in order.
struct MediaJob {
    std::unique_ptr<MediaTranscriber> transcriber
        = std::make_unique<MediaTranscriber>([] { return std::make_unique<FFmpegMediaReader>(); }, QString());
    QStringList events;
    std::optional<MediaTranscriber::Output> output;
    bool onMainThread = true;

    explicit MediaJob(const Source& source)
    {
        const auto add = [this](const QString& event) {
            events << event;
            onMainThread = onMainThread && QThread::currentThread() == qApp->thread();
        };
        transcriber->onStatus = [=](const QString& text, std::optional<double> p) { add(p ? text + '@' + QString::number(*p) : text); };
        transcriber->onFinished = [=, this](const MediaTranscriber::Output& result) {
            output = result;
            add("= " + result.text + (result.srtURL ? " + srt" : ""));
        };
        transcriber->onError = [=](const Error& error) { add("! " + error.description()); };
        transcriber->transcribe(source);
    }
    void finish()
    {
        const auto answered = [&] { return output || (!events.isEmpty() && events.last().startsWith("! ")); };
        EXPECT_TRUE(waitUntil(answered, 120s)) << events.join(" | ").toStdString();
    }
};

class MediaTranscriberTest : public ::testing::Test {
protected:
    // 3 s of AAC speech, and an hour of noise that takes a while to extract.
    static void SetUpTestSuite()
    {
        QDir().mkpath(scratch({}));
        QProcess::execute("ffmpeg", {"-loglevel", "error", "-y", "-i", testDataPath("speech/jfk.wav"), "-t", "3", scratch("fala.m4a")});
        QProcess::execute(
            "ffmpeg", {"-loglevel", "error", "-y", "-f", "lavfi", "-i", "anoisesrc=r=8000", "-t", "3600", scratch("longo.wav")});
    }

    void SetUp() override
    {
        writeFile(AppPaths::modelsFolder() + "/ggml-small-q5_1.bin", "ggml");
        writeFile(fakeYtDlp(""), DesktopApps::readAll(fakesPath("yt-dlp")), true);
    }
    void TearDown() override { EXPECT_TRUE(mediaFolders().isEmpty()) << mediaFolders().join(' ').toStdString(); }

    void script(const QString& whisperLines, const QString& ytdlpLines)
    {
        whisper.script(whisperLines);
        writeFile(fakeYtDlp(".control"), ytdlpLines.toUtf8());
        for (const QString& leftover : {fakeYtDlp(".runlog"), whisper.binaryPath() + ".terminated", whisper.binaryPath() + ".lastargs"})
            QFile::remove(leftover);
    }

    FakeWhisper whisper;
};

// Folders of a crashed run go at start-up; without program or model a job is refused at once.
TEST_F(MediaTranscriberTest, LeftoversGoAtStartUpAndWithoutProgramOrModelAJobIsRefused)
{
    const QString job = AppPaths::temporaryFolder() + "/voxaria-media-0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0";
    const QString notOurs = AppPaths::temporaryFolder() + "/voxaria-media-11111111-2222-3333-4444-555555555555";
    writeFile(job + "/audio.wav", "RIFF");
    writeFile(scratch("target/keep.txt"), "mine");
    QFile::link(scratch("target"), notOurs); // a link is never followed
    MediaTranscriber::removeLeftovers();
    EXPECT_EQ(mediaFolders(), QStringList{QFileInfo(notOurs).fileName()});
    EXPECT_TRUE(QFile::exists(scratch("target/keep.txt")));
    QFile::remove(notOurs);

    const QStringList refused = {"! O modelo Whisper ainda não foi baixado. Use o menu \"Modelo Whisper\" primeiro."};
    QFile::setPermissions(whisper.binaryPath(), QFile::ReadOwner);
    EXPECT_EQ(MediaJob(Source::file(scratch("fala.m4a"))).events, refused);
    FakeWhisper reinstalled;
    QDir(AppPaths::modelsFolder()).removeRecursively();
    EXPECT_EQ(MediaJob(Source::url("https://example.com/v")).events, refused);
}

// Every status of every phase, then the answer; a success keeps only the SRT in its folder. yt-dlp
// and whisper-cli create the job's files for the user alone, whatever umask the program has.
TEST_F(MediaTranscriberTest, EachPhaseReportsAndTheAnswerFollowsWhatTheChildrenDid)
{
    const QString awkward = scratch("pasta com espaço/vídeo \"d'água\" $(x).m4a"), file = scratch("fala.m4a");
    writeFile(awkward, DesktopApps::readAll(file));
    const QString link = "https://www.youtube.com/watch?v=abc&list=xyz", fetch = "source=" + file + '\n';
    const QString download = "Baixando áudio do vídeo…", failed = "! Falha ao baixar o vídeo: ";
    const QStringList started = {download + "@0", download + " 0%@0", download + " 42%@0.427"};
    const QStringList fetched = started + QStringList{download + " 100%@1"};
    const QStringList update = {"Falhou — atualizando o componente de download (yt-dlp)…"}, retried = started + update;
    const QStringList transcribed = {"Extraindo áudio…", kTranscribing}, success = {"= texto de teste + srt"};
    const QStringList once = {"fetch "}, twice = {"fetch ", "update", "fetch "};
    const struct {
        QString media, whisper, ytdlp;
        QStringList events, runs;
    } cases[] = {
        // Progress lines written together each count; whisper-cli's 109 % reads as 100 %.
        {awkward, "text=  olá mundo \\n\\n\nprogress=7,8,109", "",
            transcribed + QStringList{"Transcrevendo… 7%@0.07", "Transcrevendo… 8%@0.08", "Transcrevendo… 100%@1", "= olá mundo + srt"},
            {}},
        {file, "text=\\n   \\n\\n", "", transcribed + QStringList{"=  + srt"}, {}},
        {file, "nosrt=1\ntext=sem legenda", "", transcribed + QStringList{"= sem legenda"}, {}},
        // A whole job that reads as one phrase Whisper makes up on silence has nothing to show.
        {file, "text= [Música] ", "", transcribed + QStringList{"= "}, {}},
        {file, "exit=3", "", transcribed + QStringList{"! Falha na transcrição Whisper: código 3"}, {}},
        {file, "notxt=1", "", transcribed + QStringList{"! Falha na transcrição Whisper: código 0"}, {}},
        {file, "text_hex=4f6cff61", "", transcribed + QStringList{"= Ol\uFFFDa + srt"}, {}},
        {link, "", fetch, fetched + transcribed + success, once},
        {link, "", fetch + "nopath=1", fetched + transcribed + success, once},
        // The retry starts clean: the first run's partial file is gone before the second starts.
        {link, "", fetch + "fail=1\npartial=1\nstderr=ERROR: primeira", retried + fetched + transcribed + success, twice},
        {link, "", "fail=2\nstderr=ERROR: primeira\nstderr=ERROR: última linha",
            retried + started + QStringList{failed + "ERROR: última linha"}, twice},
        {link, "", "fail=2", retried + started + QStringList{failed + "erro desconhecido"}, twice},
        {link, "", "nopath=1", fetched + update + fetched + QStringList{failed + "arquivo baixado não encontrado"}, twice},
    };
    const mode_t ours = ::umask(022);
    for (const auto& c : cases) {
        SCOPED_TRACE((c.whisper + ' ' + c.ytdlp).toStdString());
        script(c.whisper, c.ytdlp);
        MediaJob run(c.media == link ? Source::url(link) : Source::file(c.media));
        run.finish();
        EXPECT_EQ(run.events, c.events);
        EXPECT_TRUE(run.onMainThread);
        EXPECT_EQ(readLines(fakeYtDlp(".runlog")), c.runs);
        if (!run.output || !run.output->srtURL)
            continue;
        const QString folder = QFileInfo(*run.output->srtURL).path();
        EXPECT_EQ(permissions(), "700 transcricao.srt:600");
        EXPECT_EQ(QDir(folder).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden), QStringList{"transcricao.srt"});
        EXPECT_EQ(whisper.lastArguments(),
            QStringList({"-m", AppPaths::modelsFolder() + "/ggml-small-q5_1.bin", "-f", folder + "/audio.wav", "-l", "auto", "--no-prints",
                "--print-progress", "-otxt", "-osrt", "-of", folder + "/transcricao"}));
        QDir(folder).removeRecursively(); // as the window does when it closes
    }
    ::umask(ours);
    EXPECT_TRUE(QFile::exists(awkward));
    for (const QString& mask : {fakeYtDlp(".umask"), whisper.binaryPath() + ".umask"})
        EXPECT_EQ(readLines(mask), QStringList{"077"}) << mask.toStdString();
}

// The real whisper-cli and Silero model with a job's options: only speech reaches Whisper.
TEST(WhisperCliVad, OnlyWhatTheVoiceDetectionCallsSpeechIsTranscribed)
{
    const QString binary = VOXARIA_BUILT_WHISPER_CLI, models = VOXARIA_WHISPER_TEST_MODELS;
    if (!QFileInfo::exists(binary) || !QFileInfo::exists(models + "/for-tests-silero-v6.2.0-ggml.bin"))
        VOXARIA_SKIP("whisper-cli is not built here (VOXARIA_BUILD_WHISPER_CLI=OFF), nor its test models");
    QDir(AppPaths::modelsFolder()).removeRecursively();
    EXPECT_TRUE(WhisperCliFeatures::vadArguments(binary).isEmpty()) << "VAD without its model";
    writeFile(WhisperCliFeatures::vadModelPath(), DesktopApps::readAll(models + "/for-tests-silero-v6.2.0-ggml.bin"));
    QDir().mkpath(scratch({}));
    const QStringList vad = WhisperCliFeatures::vadArguments(binary);
    const QString silence = scratch("silence.wav"), noise = scratch("noise.wav");
    for (const auto& [wav, source] : {std::pair{silence, "anullsrc=r=16000:cl=mono"}, {noise, "anoisesrc=r=16000:a=0.05:c=pink"}})
        QProcess::execute("ffmpeg", {"-loglevel", "error", "-y", "-f", "lavfi", "-i", source, "-t", "3", "-c:a", "pcm_s16le", wav});
    for (const auto& [wav, speech] : {std::pair{silence, false}, {noise, false}, {testDataPath("speech/jfk.wav"), true}}) {
        QProcess whisperCli;
        // The smallest audio context and one beam: the vocabulary-only model gives no words anyway.
        whisperCli.start(binary,
            QStringList{"-m", models + "/for-tests-ggml-tiny.bin", "-f", wav, "-l", "en", "-ac", "64", "-bs", "1", "-bo", "1", "-nf",
                "-otxt", "-of", scratch("out")}
                + vad);
        ASSERT_TRUE(whisperCli.waitForFinished(120000));
        const QByteArray log = whisperCli.readAllStandardError();
        EXPECT_EQ(whisperCli.exitCode(), 0) << log.toStdString();
        EXPECT_EQ(log.contains("Final speech segments after filtering: 0"), !speech) << wav.toStdString();
        EXPECT_EQ(log.contains("encode time =     0.00 ms"), !speech) << log.toStdString();
    }
}

// A cancel, a drop or a quit stops the running child and leaves no folder; only a cancel is answered.
TEST_F(MediaTranscriberTest, CancelDropOrQuitEndsEveryPhase)
{
    const std::function<void(MediaJob&)> cancel = [](MediaJob& run) { run.transcriber->cancel(); };
    const std::function<void(MediaJob&)> drop = [](MediaJob& run) { run.transcriber.reset(); };
    const std::function<void(MediaJob&)> quit = [](MediaJob&) {
        QTimer::singleShot(0, qApp, [] { qApp->exit(); });
        qApp->exec();
    };
    const QString held = "hold=1\nprogress=45", terminated = whisper.binaryPath() + ".terminated", at45 = "Transcrevendo… 45%@0.45";
    const QString cancelled = "! Operação cancelada.";
    const struct {
        QString media, whisper, ytdlp, stopAt, terminated;
        std::function<void(MediaJob&)> stop;
        QString last;
    } cases[] = {
        {"", "", "hold=1", "Baixando áudio do vídeo… 42%@0.427", fakeYtDlp(".runlog"), cancel, cancelled},
        {scratch("longo.wav"), "", "", "Extraindo áudio…", "", cancel, cancelled},
        {scratch("fala.m4a"), held, "", at45, terminated, cancel, cancelled},
        {scratch("fala.m4a"), held, "", at45, terminated, drop, at45},
        {scratch("fala.m4a"), held, "", at45, terminated, quit, at45},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE((c.stopAt + ' ' + c.last).toStdString());
        script(c.whisper, c.ytdlp);
        MediaJob run(c.media.isEmpty() ? Source::url("https://example.com/v") : Source::file(c.media));
        ASSERT_TRUE(waitUntil([&] { return run.events.contains(c.stopAt); }, 60s)) << run.events.join(" | ").toStdString();
        EXPECT_TRUE(c.stopAt != at45 || permissions() == "700 audio.wav:600") << permissions().toStdString();
        c.stop(run);
        EXPECT_TRUE(waitUntil([&] { return mediaFolders().isEmpty(); }, 30s));
        spin(200ms);
        EXPECT_EQ(run.events.last(), c.last);
        EXPECT_TRUE(c.terminated.isEmpty() || readLines(c.terminated).endsWith("terminated")) << c.terminated.toStdString();
        EXPECT_EQ(whisper.lastArguments().isEmpty(), c.whisper.isEmpty()) << "whisper-cli ran after the stop";
    }
}

// yt-dlp's complaints as users read them; the line itself stays behind the reworded ones. Lines
// about other programs or parts of a download ("" below) stay yt-dlp's own words.
TEST(MediaTranscriberErrorTest, YtDlpLinesReadAsTheFailureTheyReport)
{
    const std::pair<QString, QStringList> cases[] = {
        {"Este vídeo foi removido ou não está disponível.",
            {"ERROR: [youtube] abc: Video unavailable", "This video has been removed by the uploader",
                "This video is no longer available because the YouTube account has been terminated.", "HTTP Error 410: Gone"}},
        {"Este vídeo é privado.", {"ERROR: [youtube] abc: Private video. Sign in if you've been granted access to this video"}},
        {"Este vídeo exige login ou cookies.",
            {"Sign in to confirm you're not a bot. Use --cookies-from-browser", "rate-limit reached or login required",
                "Join this channel to get access to members-only content like this video"}},
        {"Este endereço não é de um vídeo suportado.", {"ERROR: Unsupported URL: https://exemplo.com/", "ERROR: 'abc' is not a valid URL"}},
        {"Sem conexão com a internet.",
            {"ERROR: Unable to download webpage: <urlopen error [Errno -2] Name or service not known>",
                "[Errno -3] Temporary failure in name resolution", "[Errno 101] Network is unreachable", "[Errno 111] Connection refused",
                "The read operation timed out", "Failed to resolve 'www.youtube.com'", "[Errno 104] Connection reset by peer"}},
        {"O site mudou e o yt-dlp precisa ser atualizado.",
            {"ERROR: [youtube] abc: Unable to extract uploader id", "please report this issue on https://github.com/yt-dlp/yt-dlp/issues",
                "WARNING: [youtube] abc: nsig extraction failed: You may experience throttling"}},
        {"O site recusou o acesso ao vídeo (erro 403). Tente de novo mais tarde.", {"HTTP Error 403: Forbidden"}},
        {"O vídeo não foi encontrado (erro 404). Confira o link.", {"HTTP Error 404: Not Found (caused by <HTTPError 404: Not Found>)"}},
        {"Este vídeo não está disponível no seu país.", {"The uploader has not made this video available in your country"}},
        {"Esta transmissão ainda não começou.", {"ERROR: [youtube] abc: This live event will begin in 3 hours."}},
        {"O site recebeu pedidos demais (erro 429). Tente de novo mais tarde.", {"HTTP Error 429: Too Many Requests"}},
        {"O site está com problemas no momento (erro do servidor). Tente de novo mais tarde.", {"HTTP Error 503: Service Unavailable"}},
        {"",
            {"ERROR: Postprocessing: audio conversion failed",
                "ERROR: ffmpeg not found. Please install or provide the path using --ffmpeg-location",
                "ERROR: fragment 3 not found, unable to continue", "ERROR: HTTP Error 4040 from a proxy"}},
    };
    for (const auto& [description, lines] : cases)
        for (const QString& line : lines) {
            const MediaTranscriberError error = MediaTranscriberError::fromYtDlpLine(line);
            EXPECT_EQ(error.description(), description.isEmpty() ? "Falha ao baixar o vídeo: " + line : description);
            EXPECT_EQ(error.toolOutput(), description.isEmpty() ? QString() : line);
        }
}

}
