#include "App/StatusMenu.h"
#include "Engines/ModelDownloadWindow.h"
#include "Engines/ModelDownloader.h"
#include "LocalHttpServer.h"
#include "ModelFiles.h"
#include "Platform/Fakes/FakeAlerts.h"
#include "Shared/AppPaths.h"
#include "Shared/Preferences/Settings.h"
#include "TestSupport.h"

#include <QApplication>
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using TestSupport::waitUntil;
using Route = LocalHttpServer::Route;

namespace {

const ModelDownloader::Model& small = ModelDownloader::Model::recommended();
const ModelDownloader::Model& vad = ModelDownloader::Model::voiceActivity();
const QString kInstalled = "Modelo \"Equilibrado — small\" instalado e selecionado. Segure a tecla de ditado e fale.";
const QByteArray kModel = ModelFiles::whisper(3 << 20);
const QString kCut = "A conexão caiu antes do fim do download. Tente de novo: ele continua de onde parou.";
const QString kRefused = "O servidor não pôde continuar o download de onde ele parou (HTTP 416). O que tinha chegado foi descartado: "
                         "tente de novo para baixar do início.";

ModelDownloader::Model withHash(const QByteArray& sha256)
{
    ModelDownloader::Model model = small;
    model.sha256 = sha256.size() == 64 ? sha256 : QCryptographicHash::hash(sha256, QCryptographicHash::Sha256).toHex();
    return model;
}

qint64 partSize()
{
    return QFileInfo(small.partPath()).size();
}

QByteArray contents(const QString& name)
{
    QFile file(QDir(AppPaths::modelsFolder()).filePath(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(none)");
}

// The downloader against a server of the test's own (the voice activity model in vad/); each test
// starts with an earlier model and the voice activity model installed.
class ModelDownloaderTest : public ::testing::Test {
protected:
    LocalHttpServer server;
    FakeAlerts* alerts = new FakeAlerts;
    ModelDownloader downloader{std::unique_ptr<Alerts>(alerts),
        {server.baseUrl(), server.baseUrl().resolved(QUrl("vad/")), server.baseUrl().resolved(QUrl("nemotron/"))}};
    QList<bool> completions;
    QSignalSpy selected{&downloader, &ModelDownloader::whisperModelInstalled};
    QTemporaryDir scratch;
    Settings settings{scratch.filePath("settings.conf")};

    ModelDownloaderTest() { ModelDownloadWindow::follow(downloader); }
    void SetUp() override
    {
        QDir(AppPaths::modelsFolder()).removeRecursively();
        QFile::remove(AppPaths::modelsFolder());
        TestSupport::writeFile(AppPaths::modelsFolder() + "/ggml-base-q5_1.bin", "earlier model");
        TestSupport::writeFile(vad.filePath(), "voice model");
        completions.clear();
        selected.clear();
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
    // The download's window on screen, if any.
    static ModelDownloadWindow* shownWindow()
    {
        for (QWidget* widget : QApplication::topLevelWidgets())
            if (auto* shown = qobject_cast<ModelDownloadWindow*>(widget); shown && shown->isVisible())
                return shown;
        return nullptr;
    }
    QString status() const { return shownWindow() ? shownWindow()->statusText() : "(no window)"; }
};

TEST_F(ModelDownloaderTest, ShowsProgressThenReplacesAndSelectsTheModel)
{
    // Without a length the file's own structure shows it whole.
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
        EXPECT_EQ(shownWindow()->fraction(), c.sendLength ? 0.5 : 0);
        server.release();
        EXPECT_EQ(waitForEnd(), "Modelo instalado: " + kInstalled);
        EXPECT_EQ(contents(small.fileName), kModel);
        EXPECT_EQ(selected, QList<QVariantList>{{small.fileName}});
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
        const QPointer<ModelDownloadWindow> window = shownWindow();
        bool secondCalled = false;
        downloader.download(ModelDownloader::Model::catalog().at(2), [&](bool) { secondCalled = true; });
        EXPECT_EQ(shownWindow(), window);

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
    const struct {
        Route route;
        QString reason;
        bool resumes = false; // the next try asks only for what is missing
        QUrl base = {};
        bool readOnlyFolder = false;
        QByteArray part = {}, sha256 = {}; // left by an earlier try; the catalogue's
        QString diskSize = {}; // the models folder on a file system this small
    } cases[] = {
        {{.status = 304}, "O servidor não enviou o arquivo: respondeu com um redirecionamento que não pôde ser seguido (HTTP 304).", true,
            {}, false, kModel.left(1 << 20)},
        {{.body = kModel, .status = 416}, kRefused, false, {}, false, kModel.left(1 << 20)},
        {{.body = kModel}, "O arquivo recebido não confere com o modelo publicado (SHA-256). O arquivo foi descartado.", false, {}, false,
            {}, QByteArray(64, '0')},
        {{.body = kModel}, "Espaço insuficiente em disco: faltam 2 MB.", false, {}, false, {}, {}, "2m"},
        {{.body = kModel, .sendLength = false},
            "Falha ao gravar o modelo no disco: não há espaço livre no disco em " + AppPaths::modelsFolder() + ".", false, {}, false, {},
            {}, "2m"},
        {{.body = page, .status = 404}, "O servidor respondeu com o status HTTP 404."},
        {{.body = page}, "O arquivo recebido não é um modelo Whisper. Nada foi instalado."},
        {{.body = kModel, .cutAt = 3 << 19}, kCut, true},
        {{.body = kModel, .announcedLength = 4 << 20}, kCut, true},
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
        EXPECT_TRUE(selected.isEmpty());
        EXPECT_EQ(contents("ggml-base-q5_1.bin"), folderIsAFile ? "(none)" : "earlier model");

        QFile::remove(AppPaths::modelsFolder());
        server.setRoute(small.fileName, Route{.body = kModel});
        start();
        EXPECT_EQ(waitForEnd(), "Modelo instalado: " + kInstalled);
        EXPECT_EQ(contents(small.fileName), kModel);
        EXPECT_EQ(server.ranges.last().startsWith("Range: bytes="), c.resumes) << server.ranges.last().toStdString();
    }
}

// A model that arrived whole but cannot be moved into place (a folder has its name) is kept, and
// the next try installs it without fetching it again.
TEST_F(ModelDownloaderTest, AWholeModelThatCannotBeMovedIntoPlaceIsKept)
{
    TestSupport::writeFile(small.filePath() + "/no caminho", "");
    server.setRoute(small.fileName, Route{.body = kModel});
    start();
    EXPECT_EQ(waitForEnd(), "Download não concluído: Falha ao salvar o modelo: já existe uma pasta " + small.filePath() + ".");
    EXPECT_EQ(partSize(), kModel.size());
    QDir(small.filePath()).removeRecursively();
    start();
    EXPECT_EQ(waitForEnd(), "Modelo instalado: " + kInstalled);
    EXPECT_EQ(server.ranges.last(), "Range: bytes=" + QByteArray::number(kModel.size()) + '-');
    EXPECT_EQ(contents(small.fileName), kModel);
}

// Servers that misbehave never get a wrong file installed, and never cost the user what arrived:
// a half that can be continued is kept, and the next try (from a good server) finishes it. A resume
// gets only what is still the same file: a changed one is fetched again from its start.
TEST_F(ModelDownloaderTest, BadServersNeverInstallAWrongFileNorLoseAResumableHalf)
{
    const QByteArray changed = ModelFiles::whisper(kModel.size(), 'v');
    const struct {
        const char* what;
        QByteArray part; // left by an earlier try, with its first answer's ETag "a"
        Route route;
        QString reason; // "": installed
        qint64 keptPart; // what is left to continue, -1: nothing
        QByteArray installed = kModel;
    } cases[] = {
        {"200 without a length, cut after 2 of 3 MiB", {}, {.body = kModel, .sendLength = false, .cutAt = 2 << 20}, kCut, 2 << 20},
        {"206 of an unknown total, cut short", kModel.left(1 << 20),
            {.body = kModel, .cutAt = 1 << 20, .etag = "\"a\"", .totalUnknown = true}, kCut, 2 << 20},
        {"206 of an unknown total, whole", kModel.left(1 << 20), {.body = kModel, .etag = "\"a\"", .totalUnknown = true}, "", -1},
        {"the file changed", kModel.left(1 << 20), {.body = changed, .etag = "\"b\""}, "", -1, changed},
        {"If-Range ignored, the file changed", kModel.left(1 << 20), {.body = changed, .etag = "\"b\"", .ignoresIfRange = true}, "", -1,
            changed},
        {"416 without Content-Range, the part whole", kModel, {.body = kModel, .status = 416, .sendsContentRange = false}, "", -1},
        {"416 without Content-Range, the part not whole", kModel.left(1 << 20), {.body = kModel, .status = 416, .sendsContentRange = false},
            kRefused, -1},
        {"302 without a Location", kModel.left(1 << 20), {.status = 302},
            "O servidor não enviou o arquivo: respondeu com um redirecionamento que não pôde ser seguido (HTTP 302). Tente de novo mais "
            "tarde.",
            1 << 20},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        SetUp();
        if (!c.part.isEmpty()) {
            TestSupport::writeFile(small.partPath(), c.part);
            TestSupport::writeFile(small.partPath() + ".etag", "\"a\"");
        }
        server.setRoute(small.fileName, c.route);
        const qsizetype firstRequest = server.ranges.size();
        start();
        const QString ending = waitForEnd();
        if (c.reason.isEmpty()) {
            EXPECT_EQ(ending, "Modelo instalado: " + kInstalled);
            EXPECT_EQ(contents(small.fileName), c.installed);
            EXPECT_FALSE(QFile::exists(small.partPath()));
            EXPECT_TRUE(server.ranges.value(firstRequest).startsWith("Range: bytes=")) << "no resume was tried";
            continue;
        }
        EXPECT_EQ(ending, "Download não concluído: " + c.reason);
        EXPECT_FALSE(small.isDownloaded());
        EXPECT_TRUE(selected.isEmpty());
        EXPECT_EQ(QFile::exists(small.partPath()) ? partSize() : -1, c.keptPart);
        server.setRoute(small.fileName, Route{.body = kModel, .etag = c.route.etag});
        start();
        EXPECT_EQ(waitForEnd(), "Modelo instalado: " + kInstalled);
        EXPECT_EQ(contents(small.fileName), kModel);
        EXPECT_EQ(server.ranges.last(), c.keptPart > 0 ? "Range: bytes=" + QByteArray::number(c.keptPart) + '-' : "");
    }
}

// However Qt happens to report a connection cut at half (an error, or a clean end short of the
// announced length), what arrived stays for the next try, which continues it: twenty runs of the
// same cut. (What Qt still held unread when the error came may be lost: the part can be shorter.)
TEST_F(ModelDownloaderTest, AConnectionCutAtHalfAlwaysKeepsWhatArrived)
{
    for (int run = 1; run <= 20; ++run) {
        SCOPED_TRACE(run);
        SetUp();
        server.setRoute(small.fileName, Route{.body = kModel, .cutAt = kModel.size() / 2, .etag = "\"a\""});
        start();
        EXPECT_EQ(waitForEnd(), "Download não concluído: " + kCut);
        const qint64 kept = partSize();
        EXPECT_TRUE(kept > 0 && kept <= kModel.size() / 2) << kept;
        EXPECT_EQ(contents(small.fileName + ".part"), kModel.left(kept));
        server.setRoute(small.fileName, Route{.body = kModel, .etag = "\"a\""});
        start();
        EXPECT_EQ(waitForEnd(), "Modelo instalado: " + kInstalled);
        EXPECT_EQ(server.ranges.last(), "Range: bytes=" + QByteArray::number(kept) + '-');
        EXPECT_EQ(contents(small.fileName), kModel);
    }
}

// The outcome of a download is its own: one started while the previous one's alert is still open
// reports to its own caller. (A stale menu item and the running part: StatusMenuTests.)
TEST_F(ModelDownloaderTest, ADownloadStartedDuringTheLastAlertKeepsItsOwnCompletion)
{
    server.setRoute(small.fileName, Route{.body = kModel, .holdAt = 1 << 20});
    QList<bool> second;
    alerts->whileShown = [&](const Alerts::Alert&) {
        alerts->whileShown = nullptr;
        downloader.download(small, [&](bool success) { second.append(success); });
    };
    server.setRoute("ggml-base-q5_1.bin", Route{.status = 404});
    start(ModelDownloader::Model::catalog().at(2));
    EXPECT_TRUE(waitUntil([&] { return !alerts->shown.isEmpty() && downloader.isDownloading() && partSize() == 1 << 20; }));
    EXPECT_EQ(completions, QList<bool>{false});
    server.release();
    waitForEnd();
    EXPECT_EQ(second, QList<bool>{true});
    EXPECT_EQ(completions, QList<bool>{false});
    EXPECT_EQ(contents(small.fileName), kModel);
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
    EXPECT_TRUE(waitUntil([&] { return status() == "Baixando o modelo de detecção de voz…" && shownWindow()->fraction() > 0; }));
    downloader.cancelTapped();
    EXPECT_EQ(completions, (QList<bool>{true, false}));
    EXPECT_FALSE(QFile::exists(small.partPath())) << "the Whisper model was started";
}

// The live engine's model comes from its own repository as a GGUF file: a ggml file there is refused,
// an interrupted one resumes, and neither the voice activity model nor the Whisper choice is touched.
TEST_F(ModelDownloaderTest, TheLiveModelIsAGgufFileOfItsOwnThatSelectsNoWhisperModel)
{
    const ModelDownloader::Model& live = ModelDownloader::Model::liveSpeech();
    const QByteArray gguf = ModelFiles::gguf({{{3 << 18}}});
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
    EXPECT_TRUE(selected.isEmpty());
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
        StatusMenu::maybeOfferModelDownload(*alerts, downloader, settings, [&] { completions.append(true); });
        waitForEnd();
        return alerts->shown.size() > before ? alerts->shown[before].messageText + "\n" + alerts->shown[before].informativeText : "";
    };
    const QString offered
        = "Instalar o motor de transcrição de alta qualidade?\nO Voxaria pode baixar o modelo Whisper "
          "\"Equilibrado — small\" (190 MB, download único, recomendado para a maioria dos computadores). Ele roda 100% no seu "
          "computador, offline, e tem qualidade de transcrição superior.\n\nO motor nativo (Nemotron, texto ao vivo enquanto você "
          "fala) também precisa de um modelo, que fica no mesmo menu. Outros tamanhos de modelo ficam no menu, em \"Modelo Whisper\".";

    settings.setEngine(TranscriptionEngineKind::apple);
    EXPECT_EQ(offer("Agora não"), offered);
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::apple);
    EXPECT_EQ(offer("Baixar agora (190 MB)"), offered);
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::whisper);
    EXPECT_EQ(completions, QList<bool>{true}) << "the menu is refreshed once";
    EXPECT_EQ(offer("Baixar agora (190 MB)"), "") << "a model is installed";
    QFile::remove(AppPaths::modelsFolder() + '/' + small.fileName);
    QFile::remove(program);
    EXPECT_EQ(offer("Baixar agora (190 MB)"), "") << "no whisper-cli";
}

}
