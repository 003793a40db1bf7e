#include "App/AppDelegate.h"
#include "Engines/ModelDownloadWindow.h"
#include "Engines/ModelDownloader.h"
#include "LocalHttpServer.h"
#include "Platform/Fakes/FakeAlerts.h"
#include "Shared/AppPaths.h"
#include "Shared/Preferences/Settings.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QProcess>
#include <QPushButton>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using TestSupport::waitUntil;
using Route = LocalHttpServer::Route;

namespace {

const ModelDownloader::Model& small = ModelDownloader::Model::recommended();
const ModelDownloader::Model& vad = ModelDownloader::Model::voiceActivity();
const QString kInstalled = "Modelo \"Equilibrado — small\" instalado e selecionado. Segure a tecla de ditado e fale.";
const QByteArray kModel = QByteArray("lmgg").leftJustified(3 << 20, 'w'); // starts like a whisper.cpp model

ModelDownloader::Model withHash(const QByteArray& sha256)
{
    ModelDownloader::Model model = small;
    model.sha256 = sha256.size() == 64 ? sha256 : QCryptographicHash::hash(sha256, QCryptographicHash::Sha256).toHex();
    return model;
}

QByteArray contents(const QString& name)
{
    QFile file(QDir(AppPaths::modelsFolder()).filePath(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(none)");
}

// The downloader against a server of the test's own (the voice activity model in vad/); each test
// starts with an earlier model installed and selected, the voice activity model, and the native engine.
class ModelDownloaderTest : public ::testing::Test {
protected:
    LocalHttpServer server;
    FakeAlerts* alerts = new FakeAlerts;
    ModelDownloader downloader{std::unique_ptr<Alerts>(alerts),
        {server.baseUrl(), server.baseUrl().resolved(QUrl("vad/")), server.baseUrl().resolved(QUrl("nemotron/"))}};
    QList<bool> completions;

    void SetUp() override
    {
        QDir(AppPaths::modelsFolder()).removeRecursively();
        QFile::remove(AppPaths::modelsFolder());
        TestSupport::writeFile(AppPaths::modelsFolder() + "/ggml-base-q5_1.bin", "earlier model");
        TestSupport::writeFile(vad.filePath(), "voice model");
        Settings::shared().setWhisperModelFileName("ggml-base-q5_1.bin");
        Settings::shared().setEngine(TranscriptionEngineKind::apple);
        completions.clear();
    }
    void start(const ModelDownloader::Model& model = small)
    {
        downloader.download(model, [this](bool success) { completions.append(success); });
    }
    // The alert that ended the download ("" when none).
    QString waitForEnd()
    {
        const qsizetype before = alerts->shown.size();
        EXPECT_TRUE(waitUntil([this] { return !downloader.isDownloading(); }, 30s));
        return alerts->shown.size() > before ? alerts->shown.last().messageText + ": " + alerts->shown.last().informativeText : "";
    }
    QString status() const { return downloader.window() ? downloader.window()->statusText() : "(no window)"; }
};

TEST_F(ModelDownloaderTest, ShowsProgressThenReplacesAndSelectsTheModel)
{
    EXPECT_EQ(ModelDownloader::progressText(286785536, 573571072), "273 MB de 547 MB (50%)");
    const struct {
        bool sendLength;
        QString atStart, atHalf;
    } cases[] = {
        {true, "0 MB de 3 MB (0%)", "1 MB de 3 MB (50%)"},
        {false, "Conectando… (190 MB no total)", "Conectando… (190 MB no total)"},
    };
    for (const auto& c : cases) {
        SetUp();
        TestSupport::writeFile(AppPaths::modelsFolder() + '/' + small.fileName, "an older copy");
        // The real host redirects to a CDN.
        server.setRoute(small.fileName, Route{.redirectTo = "cdn/" + small.fileName});
        server.setRoute("cdn/" + small.fileName, Route{.body = kModel, .sendLength = c.sendLength, .holdAt = 0});
        start();
        EXPECT_TRUE(waitUntil([&] { return server.ranges.size() == 2 && status() == c.atStart; })) << status().toStdString();
        server.release(kModel.size() / 2);
        EXPECT_TRUE(waitUntil([&] { return status() == c.atHalf; })) << status().toStdString();
        EXPECT_EQ(downloader.window()->fraction(), c.sendLength ? 0.5 : 0);
        server.release();
        EXPECT_EQ(waitForEnd(), "Modelo instalado: " + kInstalled);
        EXPECT_EQ(contents(small.fileName), kModel);
        EXPECT_EQ(Settings::shared().whisperModelFileName(), small.fileName);
        EXPECT_EQ(completions, QList<bool>{true});
        server.ranges.clear();
    }
}

// Cancelled by its button, or by closing the window and confirming (after a first "Continuar").
TEST_F(ModelDownloaderTest, CancelClosesAtOnceAndTheNextTryResumes)
{
    for (const bool byClosing : {false, true}) {
        SetUp();
        server.setRoute(small.fileName, Route{.body = kModel, .holdAt = 1 << 20, .etag = "\"v1\""});
        start();
        EXPECT_TRUE(waitUntil([&] { return status() == "1 MB de 3 MB (33%)"; })) << status().toStdString();
        const QPointer<ModelDownloadWindow> window = downloader.window();
        bool secondCalled = false;
        downloader.download(ModelDownloader::Model::catalog().at(2), [&](bool) { secondCalled = true; });
        EXPECT_EQ(downloader.window(), window);

        alerts->answers = QStringList{"Continuar", "Cancelar download"};
        for (int ask = 1; byClosing && ask <= 2; ++ask) {
            const qsizetype asked = alerts->shown.size() + 1;
            window->close();
            EXPECT_TRUE(waitUntil([&] { return alerts->shown.size() == asked; }));
            EXPECT_EQ(alerts->shown.last().messageText, "Cancelar o download?");
            EXPECT_EQ(window && window->isVisible(), ask == 1);
        }
        if (!byClosing)
            window->findChild<QPushButton*>()->click();
        EXPECT_FALSE(window && window->isVisible());
        EXPECT_EQ(waitForEnd(), "");
        EXPECT_EQ(completions, QList<bool>{false});
        EXPECT_FALSE(small.isDownloaded());

        server.setRoute(small.fileName, Route{.body = kModel, .etag = "\"v1\""});
        start(withHash(kModel));
        EXPECT_EQ(waitForEnd(), "Modelo instalado: " + kInstalled);
        EXPECT_EQ(server.ranges.last(), "Range: bytes=1048576-");
        EXPECT_EQ(contents(small.fileName), kModel);
        EXPECT_FALSE(secondCalled);
    }
}

// Each failure says why, installs nothing, keeps the earlier model and setting, and the next
// download works, continuing what arrived when it can.
TEST_F(ModelDownloaderTest, FailuresInstallNothingAndTheNextDownloadWorks)
{
    const QByteArray page = "<html><body>Erro</body></html>";
    const QString cut = "A conexão caiu antes do fim do download. Tente de novo: ele continua de onde parou.";
    const struct {
        Route route;
        QString reason;
        bool resumes = false; // the next try asks only for what is missing
        QUrl base = {};
        bool readOnlyFolder = false;
        QByteArray part = {}, sha256 = {}; // left by an earlier try; the catalogue's
        QString diskSize = {}; // the models folder on a file system this small
    } cases[] = {
        {{.status = 304}, "O servidor respondeu com o status HTTP 304.", true, {}, false, kModel.left(1 << 20)},
        {{.body = kModel, .status = 416}, "O servidor respondeu com o status HTTP 416.", false, {}, false, kModel.left(1 << 20)},
        {{.body = kModel}, "O arquivo recebido não confere com o modelo publicado (SHA-256). O arquivo foi descartado.", false, {}, false,
            {}, QByteArray(64, '0')},
        {{.body = kModel}, "Espaço insuficiente em disco: faltam 2 MB.", false, {}, false, {}, {}, "2m"},
        {{.body = kModel, .sendLength = false},
            "Falha ao gravar o modelo no disco: não há espaço livre no disco em " + AppPaths::modelsFolder() + ".", false, {}, false, {},
            {}, "2m"},
        {{.body = page, .status = 404}, "O servidor respondeu com o status HTTP 404."},
        {{.body = page, .status = 500}, "O servidor respondeu com o status HTTP 500."},
        {{.body = page}, "O arquivo recebido não é um modelo Whisper. Nada foi instalado."},
        {{.body = kModel, .cutAt = 3 << 19}, cut, true},
        {{.body = kModel, .announcedLength = 4 << 20}, cut, true},
        {{}, "O servidor recusou a conexão.", false, QUrl("http://127.0.0.1:1/")},
        {{}, "Servidor não encontrado (models.invalid). Verifique a conexão com a internet.", false, QUrl("http://models.invalid/")},
        {{.body = kModel}, "Falha ao salvar o modelo: " + AppPaths::modelsFolder() + " existe, mas não é uma pasta."},
        {{.body = kModel}, "Falha ao salvar o modelo: sem permissão para gravar em " + AppPaths::modelsFolder() + ".", false, {}, true},
    };
    // Immutable, so that even root (as in CI) cannot write into it.
    const auto setReadOnly = [](bool on) { return QProcess::execute("chattr", {on ? "+i" : "-i", AppPaths::modelsFolder()}) == 0; };
    const auto mountDisk = [](const QString& size) {
        return QProcess::execute("mount", {"-t", "tmpfs", "-o", "size=" + size, "tmpfs", AppPaths::modelsFolder()}) == 0;
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason.toStdString());
        SetUp();
        const bool folderIsAFile = c.reason.endsWith("não é uma pasta.");
        if (folderIsAFile && QDir(AppPaths::modelsFolder()).removeRecursively())
            TestSupport::writeFile(AppPaths::modelsFolder(), "not a folder");
        server.setRoute(small.fileName, c.route);
        auto* failingAlerts = new FakeAlerts;
        ModelDownloader failing{std::unique_ptr<Alerts>(failingAlerts), {c.base.isEmpty() ? server.baseUrl() : c.base, server.baseUrl()}};
        if (c.readOnlyFolder && !setReadOnly(true)) {
            std::printf("read-only folder case skipped: this file system cannot make a folder immutable\n");
            continue;
        }
        if (!c.diskSize.isEmpty() && !mountDisk(c.diskSize)) {
            std::printf("full disk case skipped: a tmpfs cannot be mounted here\n");
            continue;
        }
        TestSupport::writeFile(AppPaths::modelsFolder() + '/' + small.fileName + ".part", c.part);
        ModelDownloader::Model model = small;
        model.sha256 = c.sha256;
        failing.download(model, [this](bool success) { completions.append(success); });
        EXPECT_TRUE(waitUntil([&] { return !failing.isDownloading(); }, 30s));
        if (!c.diskSize.isEmpty())
            QProcess::execute("umount", {AppPaths::modelsFolder()});
        if (c.readOnlyFolder)
            setReadOnly(false);
        ASSERT_EQ(failingAlerts->shown.size(), 1);
        EXPECT_EQ(failingAlerts->shown[0].messageText, "Download não concluído");
        EXPECT_TRUE(failingAlerts->shown[0].informativeText.startsWith(c.reason)) << failingAlerts->shown[0].informativeText.toStdString();
        EXPECT_EQ(completions, QList<bool>{false});
        EXPECT_FALSE(small.isDownloaded());
        EXPECT_EQ(Settings::shared().whisperModelFileName(), "ggml-base-q5_1.bin");
        EXPECT_EQ(contents("ggml-base-q5_1.bin"), folderIsAFile ? "(none)" : "earlier model");

        QFile::remove(AppPaths::modelsFolder());
        server.setRoute(small.fileName, Route{.body = kModel});
        start();
        EXPECT_EQ(waitForEnd(), "Modelo instalado: " + kInstalled);
        EXPECT_EQ(contents(small.fileName), kModel);
        EXPECT_EQ(server.ranges.last().startsWith("Range: bytes="), c.resumes) << server.ranges.last().toStdString();
    }
}

// A resume gets only what is still the same file: a changed one is fetched again from its start,
// and a ".part" that is already whole is installed as it is.
TEST_F(ModelDownloaderTest, ResumeContinuesOnlyTheSameFile)
{
    const QByteArray changed = QByteArray("lmgg").leftJustified(kModel.size(), 'v');
    const struct {
        Route before, after; // before: a first try that stops early; none: the ".part" is already whole
    } cases[] = {
        {{.body = kModel, .cutAt = 1 << 20, .etag = "\"a\""}, {.body = changed, .etag = "\"b\""}},
        {{}, {.body = kModel}},
    };
    for (const auto& c : cases) {
        SetUp();
        server.setRoute(small.fileName, c.before);
        if (c.before.body.isEmpty())
            TestSupport::writeFile(AppPaths::modelsFolder() + '/' + small.fileName + ".part", kModel);
        else {
            start();
            waitForEnd();
        }
        server.setRoute(small.fileName, c.after);
        start(withHash(c.after.body));
        EXPECT_EQ(waitForEnd(), "Modelo instalado: " + kInstalled);
        EXPECT_EQ(contents(small.fileName), c.after.body);
        EXPECT_TRUE(server.ranges.last().startsWith("Range: bytes=")) << server.ranges.last().toStdString();
    }
}

// A Whisper model download brings the voice activity model first when it is missing, checked like
// any model; its failure is only logged, one already there is not fetched again, and a cancel while
// it comes stops both.
TEST_F(ModelDownloaderTest, TheVoiceActivityModelComesAlongAndNeverBlocks)
{
    QFile published(VOXARIA_WHISPER_TEST_MODELS "/for-tests-silero-v6.2.0-ggml.bin");
    const QByteArray real = published.open(QIODevice::ReadOnly) ? published.readAll() : ""; // with whisper-cli built
    const struct {
        Route route;
        QByteArray installed; // "": already there
    } cases[] = {{{.status = 404}, "(none)"}, {{.body = kModel}, "(none)"} /* not the published file */, {{.body = real}, real}, {{}, ""}};
    server.setRoute(small.fileName, Route{.body = kModel});
    for (const auto& c : cases) {
        SetUp();
        if (!c.installed.isEmpty())
            QFile::remove(vad.filePath());
        server.setRoute("vad/" + vad.fileName, c.route);
        server.ranges.clear();
        alerts->shown.clear();
        start();
        EXPECT_EQ(waitForEnd(), "Modelo instalado: " + kInstalled);
        EXPECT_EQ(alerts->shown.size(), 1);
        EXPECT_EQ(contents(vad.fileName), c.installed.isEmpty() ? "voice model" : c.installed);
        EXPECT_EQ(server.ranges.size(), c.installed.isEmpty() ? 1 : 2);
        EXPECT_FALSE(QFile::exists(vad.partPath())) << "an empty or rejected part is left behind";
    }
    QFile::remove(vad.filePath());
    server.setRoute("vad/" + vad.fileName, Route{.body = kModel, .holdAt = 1 << 20});
    start();
    EXPECT_TRUE(waitUntil([&] { return status() == "Baixando o modelo de detecção de voz…" && downloader.window()->fraction() > 0; }));
    downloader.cancelTapped();
    EXPECT_EQ(completions, (QList<bool>{true, false}));
    EXPECT_FALSE(QFile::exists(small.partPath())) << "the Whisper model was started";
}

// The live engine's model comes from its own repository as a GGUF file: a ggml file there is refused,
// an interrupted one resumes, and neither the voice activity model nor the Whisper choice is touched.
TEST_F(ModelDownloaderTest, TheLiveModelIsAGgufFileOfItsOwnThatSelectsNoWhisperModel)
{
    const ModelDownloader::Model& live = ModelDownloader::Model::liveSpeech();
    const QByteArray gguf = QByteArray("GGUF\x03\0\0\0", 8).leftJustified(3 << 20, 'n');
    QFile::remove(vad.filePath());
    const struct {
        Route route;
        QString outcome;
    } tries[] = {
        {{.body = kModel}, "Download não concluído: O arquivo recebido não é um modelo do motor nativo. Nada foi instalado."},
        {{.body = gguf, .cutAt = 1 << 20, .etag = "\"g\""},
            "Download não concluído: A conexão caiu antes do fim do download. Tente de novo: ele continua de onde parou."},
        {{.body = gguf, .etag = "\"g\""},
            "Modelo instalado: Modelo \"Texto ao vivo — Nemotron\" instalado e selecionado. Segure a tecla "
            "de ditado e fale."},
    };
    for (const auto& t : tries) {
        server.setRoute("nemotron/" + live.fileName, t.route);
        start(live);
        EXPECT_EQ(waitForEnd(), t.outcome);
    }
    EXPECT_EQ(server.ranges.last(), "Range: bytes=1048576-");
    EXPECT_EQ(contents(live.fileName), gguf);
    EXPECT_EQ(completions, (QList<bool>{false, false, true}));
    EXPECT_FALSE(vad.isDownloaded()) << "whisper-cli's voice activity model came along";
    EXPECT_EQ(Settings::shared().whisperModelFileName(), "ggml-base-q5_1.bin");
}

TEST_F(ModelDownloaderTest, StartUpOfferDownloadsAndSelectsWhisper)
{
    const QString program = QCoreApplication::applicationDirPath() + "/whisper-cli";
    ASSERT_TRUE(TestSupport::writeFile(program, "#!/bin/sh\n", true));
    QFile::remove(AppPaths::modelsFolder() + "/ggml-base-q5_1.bin");
    server.setRoute(small.fileName, Route{.body = kModel});
    const auto offer = [&](const QString& answer) {
        alerts->answers = QStringList{answer};
        const qsizetype before = alerts->shown.size();
        AppDelegate::maybeOfferModelDownload(*alerts, downloader, [&] { completions.append(true); });
        waitForEnd();
        return alerts->shown.size() > before ? alerts->shown[before].messageText + "\n" + alerts->shown[before].informativeText : "";
    };
    const QString offered
        = "Instalar o motor de transcrição de alta qualidade?\nO Voxaria pode baixar o modelo Whisper "
          "\"Equilibrado — small\" (190 MB, download único, recomendado para a maioria dos computadores). Ele roda 100% no seu "
          "computador, offline, e tem qualidade de transcrição superior.\n\nO motor nativo (Nemotron, texto ao vivo enquanto você "
          "fala) também precisa de um modelo, que fica no mesmo menu. Outros tamanhos de modelo ficam no menu, em \"Modelo Whisper\".";

    EXPECT_EQ(offer("Agora não"), offered);
    EXPECT_EQ(Settings::shared().engine(), TranscriptionEngineKind::apple);
    EXPECT_EQ(offer("Baixar agora (190 MB)"), offered);
    EXPECT_EQ(Settings::shared().engine(), TranscriptionEngineKind::whisper);
    EXPECT_EQ(completions, QList<bool>{true}) << "the menu is refreshed once";
    EXPECT_EQ(offer("Baixar agora (190 MB)"), "") << "a model is installed";
    QFile::remove(AppPaths::modelsFolder() + '/' + small.fileName);
    QFile::remove(program);
    EXPECT_EQ(offer("Baixar agora (190 MB)"), "") << "no whisper-cli";
}

}
