// The tray menu and what its items do, the alerts, login item and browser scripted (the real tray: EndToEndTests).
#include "App/AppDelegate.h"
#include "App/Permissions.h"
#include "App/UpdaterManager.h"
#include "AppRun.h"
#include "History/HistoryStore.h"
#include "LocalHttpServer.h"
#include "ModelFiles.h"
#include "Platform/Fakes/FakePlatformServices.h"
#include "Platform/Fakes/FakeSessionPlatform.h"
#include "Platform/Linux/X11/X11WindowFocus.h"
#include "Shared/AppPaths.h"
#include "Shared/LiveSpeechModel.h"
#include "TestSupport.h"
#include "XTestKeyboard.h"

#include <QApplication>
#include <QDir>
#include <QMenu>
#include <QProcess>
#include <QPushButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>

#include <gtest/gtest.h>

namespace {

const QString kSmall = "ggml-small-q5_1.bin", kBase = "ggml-base-q5_1.bin";
QStringList warnings;

// The menu as the user reads it: "✓" for a mark, [shortcut], {tooltip}, submenus indented, "--" a separator.
QString describe(const QMenu& menu, const QString& indent = {})
{
    QString text;
    for (QAction* item : menu.actions()) {
        text
            += indent + (item->isSeparator() ? "--" : (item->isChecked() ? "✓ " : "") + item->text()) + (item->isEnabled() ? "" : " (off)");
        if (!item->shortcut().isEmpty())
            text += " [" + item->shortcut().toString(QKeySequence::NativeText) + "]";
        if (item->toolTip() != item->text().remove('&') && !item->isSeparator())
            text += " {" + item->toolTip() + "}";
        text += "\n" + (item->menu() ? describe(*item->menu(), indent + "  ") : QString());
    }
    return text;
}

class StatusMenuTest : public ::testing::Test {
protected:
    LocalHttpServer server;
    FakePlatformServices fakes;
    ModelDownloader downloader{std::make_shared<FakeAlerts>(), {server.baseUrl(), server.baseUrl(), server.baseUrl()}};
    FakeSessionPlatform platform;
    QTemporaryDir scratch;
    Settings settings{scratch.filePath("settings.conf")};
    HistoryStore history{scratch.filePath("history.json")};
    std::unique_ptr<AppDelegate> app;
    const QString whisperCli = QCoreApplication::applicationDirPath() + "/whisper-cli";

    void SetUp() override
    {
        QDir(AppPaths::modelsFolder()).removeRecursively();
        QFile::remove(whisperCli);
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& message) { warnings << message; });
        PlatformServices services = fakes.services();
        services.windowFocus = std::make_shared<X11WindowFocus>(); // the focus is checked on the real X server
        app = std::make_unique<AppDelegate>(platform, services, settings, history, downloader);
    }
    void TearDown() override { qInstallMessageHandler(nullptr); }

    void arrange(const QStringList& models, const QList<std::pair<QString, QVariant>>& stored = {})
    {
        ASSERT_TRUE(TestSupport::writeFile(whisperCli, "#!/bin/sh\n", true));
        for (const QString& model : models)
            ASSERT_TRUE(TestSupport::writeFile(AppPaths::modelsFolder() + '/' + model, "lmgg"));
        QSettings store(scratch.filePath("settings.conf"), QSettings::NativeFormat);
        for (const auto& [key, value] : stored)
            store.setValue(key, value);
    }
    QStringList marks() { return describe(*app->menu()).split('\n').filter("✓"); }
    // Clicks the item of the real menu titled so, answers the alert it leads to, and reads the menu.
    QStringList click(const QString& title, const QString& answer)
    {
        fakes.alerts->answers = QStringList{answer};
        const qsizetype asked = fakes.alerts->shown.size() + 1;
        for (QAction* item : app->menu()->findChildren<QAction*>())
            if (item->text() == title)
                item->trigger();
        EXPECT_TRUE(TestSupport::waitUntil([&] { return fakes.alerts->shown.size() == asked; }, std::chrono::seconds(10)))
            << title.toStdString();
        return describe(*app->menu()).split('\n');
    }
    QString lastAlert() const
    {
        const Alerts::Alert alert = fakes.alerts->shown.value(fakes.alerts->shown.size() - 1);
        QStringList buttons;
        for (const Alerts::Button& button : alert.buttons)
            buttons << button.title;
        return alert.messageText + "\n" + alert.informativeText + "\n[" + buttons.join(" | ") + "]";
    }
};

TEST_F(StatusMenuTest, FreshSettingsShowEveryItemWithTheDefaultsMarkedAndAChordHeldByTheDesktop)
{
    EXPECT_EQ(describe(*app->menu()),
        QString("Segure Alt direito (AltGr) para ditar (off)\n--\nTranscrever vídeo ou link…\nHistórico de ditados… [Ctrl+H]\n--\n"
                "Motor de transcrição\n  ✓ Whisper (melhor qualidade) — indisponível\n  Nemotron (nativo, tempo real)\nModelo Whisper\n"
                "  Máxima qualidade — large-v3-turbo (547 MB) — baixar {para processadores rápidos ou GPU}\n"
                "  Equilibrado — small (190 MB) — baixar {recomendado para a maioria dos computadores}\n"
                "  Leve — base (60 MB) — baixar {máquinas antigas; qualidade menor}\n  --\n"
                "  Texto ao vivo — Nemotron (473 MB) — baixar {motor nativo: o texto aparece enquanto você fala}\nTecla de ditado\n"
                "  ✓ Alt direito (AltGr)\n  Super direito\n  fn\nIdioma\n  ✓ Português (Brasil)\n  Português (Portugal)\n  English (US)\n"
                "  English (UK)\n  Español (España)\n  Español (Estados Unidos)\n  Français (France)\n  Français (Canada)\n  Deutsch\n"
                "  Italiano\n  Nederlands\n  Türkçe\n  Русский\n  Українська\n  العربية\n  हिन्दी\n  日本語\n  한국어\n  Tiếng Việt\n"
                "✓ Preferir transcrição local (offline)\n✓ Sons de feedback\n--\nIniciar com o sistema\nVerificar permissões…\n"
                "Verificar atualizações… (v%1)\n--\nSair do Voxaria [Ctrl+Q]\n")
            .arg(UpdaterManager::version()));

    platform.source.chord = "Ctrl+Alt+Espaço"; // held by the desktop (GNOME's portal, KDE in the US layout)
    app->statusMenu().selectHotkey("rightOption"); // rebuilds the menu
    EXPECT_EQ(describe(*app->menu()).split('\n').mid(0, 2),
        (QStringList{"Segure Alt direito (AltGr) para ditar (off)", "ou segure Ctrl+Alt+Espaço (atalho do sistema) (off)"}));
}

TEST_F(StatusMenuTest, MarksFallBackOnUnknownValuesAndSkipAMissingModel)
{
    // Stored words count only as written: "Apple" is no engine, "RightCommand" no key.
    arrange({kSmall}, {{"engine", "Apple"}, {"hotKey", "RightCommand"}, {"localeIdentifier", "xx-YY"}, {"playSounds", false}});
    EXPECT_EQ(marks(), (QStringList{"  ✓ Whisper (melhor qualidade)", "  ✓ Alt direito (AltGr)", "✓ Preferir transcrição local (offline)"}))
        << "the selected large model is missing, so no model is marked";
    app->statusMenu().selectModel(kSmall);
    app->statusMenu().selectModel(kBase + "-x");
    EXPECT_TRUE(marks().value(1).startsWith("  ✓ Equilibrado — small (190 MB) {")) << marks().join('\n').toStdString();
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::whisper);
}

// An engine without what it needs is explained, or its model offered; the download selects the
// engine and its model is marked in the rebuilt menu, and can be removed.
TEST_F(StatusMenuTest, EnginesWithoutTheirModelsOfferThemAndTheDownloadSelectsTheEngine)
{
    settings.setEngine(TranscriptionEngineKind::apple);
    app->statusMenu().selectEngine("whisper");
    EXPECT_EQ(lastAlert(),
        "Whisper indisponível\nO whisper-cli não foi encontrado junto do Voxaria nem no sistema. Instale o whisper.cpp "
        "da sua distribuição (por exemplo: sudo apt install whisper.cpp).\n[]");
    arrange({});
    const QByteArray model = ModelFiles::whisper(1 << 16);
    server.setRoute(kBase, {.body = model, .holdAt = 100});
    fakes.alerts->answers = QStringList{"Baixar (60 MB)"};
    app->statusMenu().selectModel(kBase);
    EXPECT_EQ(lastAlert(),
        "Baixar \"Leve — base\"?\nDownload único de 60 MB (máquinas antigas; qualidade menor). O modelo roda 100% "
        "offline.\n[Baixar (60 MB) | Cancelar]");
    ASSERT_TRUE(downloader.isDownloading());
    app->statusMenu().selectModel(kSmall);
    EXPECT_EQ(fakes.alerts->shown.size(), 2) << "nothing is asked while a download runs";
    downloader.cancelTapped();
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::apple) << "a cancelled download changes no engine";

    server.setRoute(kSmall, {.body = model});
    fakes.alerts->answers = QStringList{"Baixar agora (190 MB)"};
    app->statusMenu().selectEngine("whisper");
    EXPECT_EQ(lastAlert(),
        "Baixar o modelo Whisper?\nO motor Whisper precisa de um modelo. Recomendado: Equilibrado — small (190 MB, "
        "download único, roda offline).\n[Baixar agora (190 MB) | Cancelar]");
    ASSERT_TRUE(TestSupport::waitUntil([&] { return !downloader.isDownloading(); }, std::chrono::seconds(30)));
    EXPECT_TRUE(marks().join('|').startsWith("  ✓ Whisper (melhor qualidade)|  ✓ Equilibrado — small (190 MB) {"))
        << "the menu was rebuilt when the model arrived: " << marks().join('\n').toStdString();

    server.setRoute(LiveSpeechModel::fileName(), {.body = ModelFiles::gguf({{{3 << 17}}})});
    const QString offer = "Baixar o modelo do motor nativo?\nO motor nativo precisa do modelo Texto ao vivo — Nemotron "
                          "(473 MB, download único, roda offline).\n[Baixar agora (473 MB) | Cancelar]";
    EXPECT_EQ(click("Nemotron (nativo, tempo real)", "Cancelar").filter("✓").first(), "  ✓ Whisper (melhor qualidade)");
    EXPECT_EQ(lastAlert(), offer);
    click("Nemotron (nativo, tempo real)", "Baixar agora (473 MB)");
    ASSERT_TRUE(TestSupport::waitUntil([&] { return settings.engine() == TranscriptionEngineKind::apple; }, std::chrono::seconds(30)));
    ASSERT_TRUE(TestSupport::waitUntil([&] { return marks().join('|').contains("✓ Texto ao vivo"); })) << "the menu was not rebuilt";
    EXPECT_EQ(marks().mid(0, 3),
        (QStringList{"  ✓ Nemotron (nativo, tempo real)", "  ✓ Equilibrado — small (190 MB) {recomendado para a maioria dos computadores}",
            "  ✓ Texto ao vivo — Nemotron (473 MB) {motor nativo: o texto aparece enquanto você fala}"}))
        << "the Whisper model stays the selected one";

    settings.setEngine(TranscriptionEngineKind::whisper);
    app->statusMenu().selectEngine("apple");
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::apple) << "with its model the engine is chosen at once";
    const QStringList removals = click("Remover Nemotron (2 MB)", "Remover").filter("Remover");
    EXPECT_FALSE(QFile::exists(LiveSpeechModel::installedPath()));
    EXPECT_EQ(removals, QStringList{"  Remover small (0 MB)"});
}

// Removal is asked first; when it takes the selected model the alert says which one dictation goes
// on with, or that none is left. An item from before a download started cannot remove its part.
TEST_F(StatusMenuTest, FilesAreRemovedOnlyAfterConfirmingTheSelectedOnesWarnAndARunningPartStays)
{
    arrange({kSmall, kBase}, {{"whisperModelFileName", kSmall}});
    const QString part = AppPaths::modelsFolder() + "/ggml-large-v3-turbo-q5_0.bin.part";
    TestSupport::writeFile(part, QByteArray(3 << 19, 'w'));
    TestSupport::writeFile(part + ".etag", "\"a\"");
    const QString question = "O arquivo é apagado do disco; para usá-lo de novo, é preciso baixá-lo.";
    const QString unfinished = "Remover download incompleto de large-v3-turbo (2 MB)", small = "Remover small (0 MB)",
                  base = "Remover base (0 MB)";
    const auto removals = [&] { return describe(*app->menu()).split('\n').filter("  Remover"); };
    click(base, "Cancelar");
    EXPECT_EQ(removals(), (QStringList{"  " + unfinished, "  " + small, "  " + base}));
    EXPECT_EQ(lastAlert(), base + "?\n" + question + "\n[Remover | Cancelar]");
    click(unfinished, "Remover");
    EXPECT_EQ(removals(), (QStringList{"  " + small, "  " + base}));
    click(small, "Remover");
    EXPECT_EQ(
        lastAlert(), small + "?\n" + question + "\n\nÉ o modelo em uso: os ditados passam a usar \"Leve — base\".\n[Remover | Cancelar]");
    EXPECT_TRUE(marks().value(1).startsWith("  ✓ Leve — base (60 MB) {")) << marks().join('\n').toStdString();
    click(base, "Remover");
    EXPECT_EQ(lastAlert(),
        base + "?\n" + question
            + "\n\nÉ o modelo em uso, e nenhum outro está baixado: o Whisper fica indisponível até que um modelo seja baixado.\n[Remover | "
              "Cancelar]");
    EXPECT_EQ(QDir(AppPaths::modelsFolder()).entryList(QDir::Files), QStringList{});

    const QByteArray model = ModelFiles::whisper(3 << 20);
    const QString running = AppPaths::modelsFolder() + '/' + kBase + ".part";
    TestSupport::writeFile(running, model.left(3 << 19));
    app->statusMenu().refresh();
    const QString removal = "  Remover download incompleto de base (2 MB)";
    EXPECT_EQ(removals(), QStringList{removal});
    const QList<QAction*> items = app->menu()->findChildren<QAction*>();
    const auto stale = std::find_if(items.begin(), items.end(), [&](QAction* item) { return "  " + item->text() == removal; });
    ASSERT_NE(stale, items.end());

    server.setRoute(kBase, {.body = model, .holdAt = 100});
    downloader.download(ModelDownloader::Model::catalog().at(2));
    fakes.alerts->answers = QStringList{"Remover"};
    (*stale)->trigger();
    EXPECT_TRUE(TestSupport::waitUntil([&] { return fakes.alerts->shown.size() == 5 && removals().isEmpty(); }));
    EXPECT_TRUE(QFile::exists(running));
    downloader.cancelTapped();
    EXPECT_TRUE(TestSupport::waitUntil([&] { return removals() == QStringList{removal}; })) << removals().join('\n').toStdString();
}

TEST_F(StatusMenuTest, LaunchAtLoginLogsAFailureAndRegistersWhatAwaitsApprovalAndPermissionsOpenHelpOnlyWhenAsked)
{
    fakes.loginItem->failure = "sem permissão de escrita";
    app->statusMenu().toggleLaunchAtLogin();
    EXPECT_TRUE(warnings.contains("Falha ao alternar início com o sistema: sem permissão de escrita")) << warnings.join('\n').toStdString();
    fakes.loginItem->failure.reset();
    fakes.loginItem->current = LoginItem::Status::requiresApproval;
    app->statusMenu().toggleLaunchAtLogin();
    EXPECT_EQ(marks().last(), "✓ Iniciar com o sistema");

    fakes.alerts->answers = QStringList{"OK", "Abrir ajuda"};
    for (const qsizetype asked : {1, 2}) {
        app->openPermissions();
        ASSERT_TRUE(TestSupport::waitUntil([&] { return fakes.alerts->shown.size() == asked; }, std::chrono::seconds(10)));
        EXPECT_EQ(fakes.urlOpener->opened, asked == 1 ? QList<QUrl>{} : QList<QUrl>{Permissions::helpPageURL()});
    }
    EXPECT_EQ(fakes.alerts->shown.last().messageText, "Permissões do Voxaria");
}

// Last: it ends the application's loop. Without a tray, at start-up, when it goes away later or the
// program is started again, a window offers the menu's main commands, and leaves the focus alone.
TEST_F(StatusMenuTest, WithoutATrayAWindowOffersTheMainCommandsAndLeavesTheFocusAlone)
{
    const auto shown = [](const QString& title) -> QWidget* {
        for (QWidget* window : QApplication::topLevelWidgets())
            if (window->isVisible() && window->windowTitle() == title)
                return window;
        return nullptr;
    };
    const QString title = "O Voxaria está em execução";
    app->checkSystemTray();
    EXPECT_FALSE(shown(title)) << "a tray is there";
    std::optional<ReceivingWindow> receiver;
    if (TestSupport::hasX11()) {
        ASSERT_TRUE(receiver.emplace().start());
    }
    fakes.systemTray->available = false;
    app->checkSystemTray();
    QWidget* window = shown(title);
    ASSERT_TRUE(window);
    if (receiver) {
        TestSupport::spin(std::chrono::milliseconds(400));
        EXPECT_EQ(XTestKeyboard::focusedWindow(), receiver->windowId());
        QProcess xprop;
        xprop.start("xprop", {"-id", QString::number(window->winId()), "WM_PROTOCOLS", "WM_HINTS"});
        ASSERT_TRUE(xprop.waitForFinished());
        const QString protocols = xprop.readAllStandardOutput();
        EXPECT_TRUE(!protocols.contains("WM_TAKE_FOCUS") && protocols.contains("input focus: False")) << protocols.toStdString();
    }
    const auto click = [&](const QString& button) {
        for (QPushButton* candidate : window->findChildren<QPushButton*>())
            if (candidate->text() == button)
                candidate->click();
    };
    for (const char* button : {"Histórico de ditados…", "Transcrever vídeo ou link…", "Ajuda"})
        click(button);
    EXPECT_TRUE(shown("Histórico de ditados") && shown("Transcrever vídeo ou link"));
    EXPECT_EQ(fakes.urlOpener->opened, QList<QUrl>{Permissions::helpPageURL()});
    click("Fechar");
    app->checkSystemTray();
    EXPECT_FALSE(shown(title)) << "not again while the tray stays away";
    app->comeForward();
    EXPECT_TRUE(shown(title)) << "the program started again brings it back";
    click("Fechar");
    fakes.systemTray->available = true;
    app->checkSystemTray();
    fakes.systemTray->available = false;
    app->checkSystemTray();
    EXPECT_TRUE(shown(title)) << "again when the tray went away once more";
    QTimer::singleShot(0, [&] { click("Sair do Voxaria"); });
    QTimer::singleShot(std::chrono::seconds(10), [] { QCoreApplication::exit(1); });
    EXPECT_EQ(QCoreApplication::exec(), 0) << "the loop ends";
}

}
