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

const auto partSize = [] { return QFileInfo(small.partPath()).size(); };

const auto contents = [](const QString& name) {
    QFile file(QDir(AppPaths::modelsFolder()).filePath(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(none)");
};

// Each test starts with an earlier model and the voice activity model (served from vad/) installed.
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
        server.ranges.clear();
        alerts->shown.clear();
    }
    void start(const ModelDownloader::Model& model = small)
    {
        downloader.download(model, [this](bool success) { completions.append(success); });
    }
    QString waitForEnd()
    {
        const qsizetype before = alerts->shown.size();
        EXPECT_TRUE(waitUntil([this] { return !downloader.isDownloading(); }, 30s));
        return alerts->shown.size() > before ? alerts->shown.last().messageText + ": " + alerts->shown.last().informativeText : "";
    }
    static ModelDownloadWindow* shownWindow()
    {
        for (QWidget* widget : QApplication::topLevelWidgets())
            if (auto* shown = qobject_cast<ModelDownloadWindow*>(widget); shown && shown->isVisible())
                return shown;
        return nullptr;
    }
    QString status() const { return shownWindow() ? shownWindow()->statusText() : "(no window)"; }
};

// The window shows the progress (without a length, the file's structure shows it whole); a cancel by
// its button, or by closing it and confirming after a first "Continuar", closes it at once. The next
// try resumes, checks the whole file, replaces the older copy and selects it.
TEST_F(ModelDownloaderTest, ShowsProgressCancelsAtOnceAndTheNextTryResumesAndSelectsTheModel)
{
    const struct {
        bool sendLength, byClosing;
        QString atStart, atHalf;
    } cases[] = {
        {true, false, "0 MB de 3 MB (0%)", "1 MB de 3 MB (50%)"},
        {false, true, "Conectando… (190 MB no total)", "Conectando… (190 MB no total)"},
    };
    for (const auto& c : cases) {
        SetUp();
        TestSupport::writeFile(AppPaths::modelsFolder() + '/' + small.fileName, "an older copy");
        server.setRoute(small.fileName, Route{.redirectTo = "cdn/" + small.fileName});
        server.setRoute("cdn/" + small.fileName, Route{.body = kModel, .sendLength = c.sendLength, .holdAt = 0, .etag = "\"v1\""});
        start();
        EXPECT_TRUE(waitUntil([&] { return server.ranges.size() == 2 && status() == c.atStart; })) << status().toStdString();
        server.release(kModel.size() / 2);
        EXPECT_TRUE(waitUntil([&] { return status() == c.atHalf && partSize() == kModel.size() / 2; })) << status().toStdString();
        EXPECT_EQ(shownWindow()->fraction(), c.sendLength ? 0.5 : 0);
        const QPointer<ModelDownloadWindow> window = shownWindow();
        bool secondCalled = false;
        downloader.download(ModelDownloader::Model::catalog().at(2), [&](bool) { secondCalled = true; });
        EXPECT_EQ(shownWindow(), window);

        alerts->answers = QStringList{"Continuar", "Cancelar download"};
        for (int ask = 1; c.byClosing && ask <= 2; ++ask) {
            const qsizetype asked = alerts->shown.size() + 1;
            window->close();
            EXPECT_TRUE(waitUntil([&] { return alerts->shown.size() == asked; }));
            EXPECT_EQ(alerts->shown.last().messageText, "Cancelar o download?");
            EXPECT_EQ(window && window->isVisible(), ask == 1);
        }
        if (!c.byClosing)
            window->findChild<QPushButton*>()->click();
        EXPECT_FALSE(window && window->isVisible());
        EXPECT_EQ(waitForEnd(), "");
        EXPECT_EQ(completions, QList<bool>{false});
        EXPECT_EQ(contents(small.fileName), "an older copy");

        server.setRoute("cdn/" + small.fileName, Route{.body = kModel, .etag = "\"v1\""});
        ModelDownloader::Model hashed = small; // checked over the whole file, not just the rest
        hashed.sha256 = QCryptographicHash::hash(kModel, QCryptographicHash::Sha256).toHex();
        start(hashed);
        EXPECT_EQ(waitForEnd(), "Modelo instalado: " + kInstalled);
        EXPECT_EQ(server.ranges.last(), "Range: bytes=" + QByteArray::number(kModel.size() / 2) + '-');
        EXPECT_EQ(contents(small.fileName), kModel);
        EXPECT_EQ(selected, QList<QVariantList>{{small.fileName}});
        EXPECT_EQ(completions, (QList<bool>{false, true}));
        EXPECT_FALSE(secondCalled);
    }

    // A download started while the previous one's alert is still open reports to its own caller.
    SetUp();
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

// A failure says why, keeps the earlier model and setting and what can be continued, which the
// next try finishes; a resume gets only what is still the same file.
TEST_F(ModelDownloaderTest, FailuresInstallNothingAndTheNextTryFinishes)
{
    const QByteArray changed = ModelFiles::whisper(kModel.size(), 'v'), page = "<html><body>Erro</body></html>",
                     half = kModel.left(1 << 20);
    const QString models = AppPaths::modelsFolder();
    const QString redirect = "O servidor não enviou o arquivo: respondeu com um redirecionamento que não pôde ser seguido (HTTP ";
    constexpr qint64 upToHalf = -2;
    struct Case {
        QByteArray part; // left by an earlier try, with its first answer's ETag "a"
        Route route;
        QString reason; // "": installed
        qint64 keptPart = -1; // what is left to continue, -1: nothing, upToHalf: what Qt did not hold unread
        QByteArray installed = kModel, sha256 = {};
        QString diskSize = {}; // the models folder on a file system this small
        QUrl base = {};
    };
    std::vector<Case> cases = {
        {half, {.status = 304}, redirect + "304).", 1 << 20},
        {half, {.status = 302}, redirect + "302). Tente de novo mais tarde.", 1 << 20}, // no Location
        {half, {.body = kModel, .status = 416}, kRefused},
        {half, {.body = kModel, .status = 416, .sendsContentRange = false}, kRefused},
        {kModel, {.body = kModel, .status = 416, .sendsContentRange = false}, ""},
        {{}, {.body = kModel}, "O arquivo recebido não confere com o modelo publicado (SHA-256). O arquivo foi descartado.", -1, {},
            QByteArray(64, '0')},
        {{}, {.body = kModel}, "Espaço insuficiente em disco: faltam 2 MB.", -1, {}, {}, "2m"},
        {{}, {.body = kModel, .sendLength = false}, "Falha ao gravar o modelo no disco: não há espaço livre no disco em " + models + ".",
            -1, {}, {}, "2m"},
        {{}, {.body = page, .status = 404}, "O servidor respondeu com o status HTTP 404."},
        {{}, {.body = page}, "O arquivo recebido não é um modelo Whisper. Nada foi instalado."},
        {{}, {.body = kModel, .sendLength = false, .cutAt = 2 << 20}, kCut, 2 << 20},
        {half, {.body = kModel, .cutAt = 1 << 20, .etag = "\"a\"", .totalUnknown = true}, kCut, 2 << 20},
        {half, {.body = kModel, .etag = "\"a\"", .totalUnknown = true}, ""},
        {half, {.body = changed, .etag = "\"b\""}, "", -1, changed},
        {half, {.body = changed, .etag = "\"b\"", .ignoresIfRange = true}, "", -1, changed},
        {{}, {}, "O servidor recusou a conexão.", -1, {}, {}, {}, QUrl("http://127.0.0.1:1/")},
        {{}, {}, "Servidor não encontrado (models.invalid). Verifique a conexão com a internet.", -1, {}, {}, {},
            QUrl("http://models.invalid/")},
        {{}, {.body = kModel}, "Falha ao salvar o modelo: " + models + " existe, mas não é uma pasta."},
        {{}, {.body = kModel}, "Falha ao salvar o modelo: sem permissão para gravar em " + models + "."},
        {{}, {.body = kModel}, "Falha ao salvar o modelo: já existe uma pasta " + small.filePath() + ".", kModel.size()},
    };
    // However Qt reports a cut at half (an error, or a clean end short of the announced length).
    cases.insert(cases.end(), 20, Case{{}, {.body = kModel, .cutAt = kModel.size() / 2, .etag = "\"a\""}, kCut, upToHalf});
    // Immutable, so that even root (as in CI) cannot write into it.
    const auto setReadOnly = [&](bool on) { return QProcess::execute("chattr", {on ? "+i" : "-i", models}) == 0; };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases.data());
        SetUp();
        const bool folderIsAFile = c.reason.endsWith("não é uma pasta."), readOnly = c.reason.contains("sem permissão");
        const bool folderInTheWay = c.reason.contains("já existe uma pasta");
        if (folderIsAFile && QDir(models).removeRecursively())
            TestSupport::writeFile(models, "not a folder");
        if (folderInTheWay)
            TestSupport::writeFile(small.filePath() + "/no caminho", "");
        if ((readOnly && !setReadOnly(true))
            || (!c.diskSize.isEmpty() && QProcess::execute("mount", {"-t", "tmpfs", "-o", "size=" + c.diskSize, "tmpfs", models}) != 0)) {
            EXPECT_NE(qEnvironmentVariable("CI"), "true") << "cannot make a folder immutable or mount a tmpfs here";
            continue;
        }
        if (!c.part.isEmpty()) {
            TestSupport::writeFile(small.partPath(), c.part);
            TestSupport::writeFile(small.partPath() + ".etag", "\"a\"");
        }
        server.setRoute(small.fileName, c.route);
        auto* firstAlerts = new FakeAlerts;
        ModelDownloader first{std::unique_ptr<Alerts>(firstAlerts), {c.base.isEmpty() ? server.baseUrl() : c.base, server.baseUrl()}};
        QSignalSpy firstSelected{&first, &ModelDownloader::whisperModelInstalled};
        ModelDownloader::Model model = small;
        model.sha256 = c.sha256;
        first.download(model, [this](bool success) { completions.append(success); });
        EXPECT_TRUE(waitUntil([&] { return !first.isDownloading(); }, 30s));
        if (!c.diskSize.isEmpty())
            QProcess::execute("umount", {models});
        if (readOnly)
            setReadOnly(false);
        ASSERT_EQ(firstAlerts->shown.size(), 1);
        const QString ending = firstAlerts->shown[0].messageText + ": " + firstAlerts->shown[0].informativeText;
        EXPECT_EQ(completions, QList<bool>{c.reason.isEmpty()});
        if (c.reason.isEmpty()) {
            EXPECT_EQ(ending, "Modelo instalado: " + kInstalled);
            EXPECT_EQ(contents(small.fileName), c.installed);
            EXPECT_FALSE(QFile::exists(small.partPath()));
            continue;
        }
        EXPECT_TRUE(ending.startsWith("Download não concluído: " + c.reason)) << ending.toStdString();
        EXPECT_FALSE(QFileInfo(small.filePath()).isFile());
        EXPECT_TRUE(firstSelected.isEmpty());
        EXPECT_EQ(contents("ggml-base-q5_1.bin"), folderIsAFile ? "(none)" : "earlier model");
        const qint64 kept = QFile::exists(small.partPath()) ? partSize() : -1;
        EXPECT_TRUE(c.keptPart == upToHalf ? kept > 0 && kept <= kModel.size() / 2 : kept == c.keptPart) << kept;
        EXPECT_EQ(contents(small.fileName + ".part"), kept > 0 ? kModel.left(kept) : QByteArray("(none)"));
        QFile::remove(models);
        QDir(small.filePath()).removeRecursively();
        server.setRoute(small.fileName, Route{.body = kModel, .etag = c.route.etag});
        start();
        EXPECT_EQ(waitForEnd(), "Modelo instalado: " + kInstalled);
        EXPECT_EQ(contents(small.fileName), kModel);
        EXPECT_EQ(server.ranges.last(), kept > 0 ? "Range: bytes=" + QByteArray::number(kept) + '-' : "");
    }
}

// A missing voice activity model comes first, checked like any model; its failure is only logged,
// and a cancel while it comes stops both. The live engine's model comes alone; the start-up offer
// brings the Whisper one.
TEST_F(ModelDownloaderTest, TheVoiceActivityModelComesAlongTheLiveModelAloneAndTheStartUpOfferSelectsWhisper)
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

    // The live engine's model is a GGUF file of its own repository (a ggml one there is refused),
    // touching neither the voice activity model nor the Whisper choice.
    SetUp();
    const ModelDownloader::Model& live = ModelDownloader::Model::liveSpeech();
    const QByteArray gguf = ModelFiles::gguf({{{3 << 18}}});
    QFile::remove(vad.filePath());
    server.setRoute("nemotron/" + live.fileName, Route{.body = kModel});
    start(live);
    EXPECT_EQ(waitForEnd(), "Download não concluído: O arquivo recebido não é um modelo do motor nativo. Nada foi instalado.");
    server.setRoute("nemotron/" + live.fileName, Route{.body = gguf});
    start(live);
    EXPECT_EQ(
        waitForEnd(), "Modelo instalado: Modelo \"Texto ao vivo — Nemotron\" instalado e selecionado. Segure a tecla de ditado e fale.");
    EXPECT_EQ(contents(live.fileName), gguf);
    EXPECT_EQ(completions, (QList<bool>{false, true}));
    EXPECT_FALSE(vad.isDownloaded()) << "whisper-cli's voice activity model came along";
    EXPECT_TRUE(selected.isEmpty());

    // The start-up offer, when whisper-cli is there and no model, downloads and selects Whisper.
    SetUp();
    TestSupport::FakeWhisper whisper;
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
    QFile::remove(whisper.binaryPath());
    EXPECT_EQ(offer("Baixar agora (190 MB)"), "") << "no whisper-cli";
}

}
