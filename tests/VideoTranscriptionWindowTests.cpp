// The window driven as a user drives it, over the real pipeline with fake whisper-cli and yt-dlp.
#include "AppRun.h"
#include "DesktopApps.h"
#include "LocalHttpServer.h"
#include "Media/VideoTranscriptionWindow.h"
#include "Media/YtDlpManager.h"
#include "Platform/Fakes/FakeAlerts.h"
#include "Platform/Fakes/FakeFileDialogs.h"
#include "Platform/Fakes/FakeSounds.h"
#include "Platform/Linux/Media/FFmpegMediaReader.h"
#include "Platform/Linux/X11/X11ClipboardPasteboard.h"
#include "Shared/AppPaths.h"
#include "TestSupport.h"
#include "XTestKeyboard.h"

#include <QApplication>
#include <QClipboard>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QTest>
#include <QToolButton>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using namespace TestSupport;

namespace {

const QString kIdle = "Transcrever+ - no bar | Copiar- Salvar texto- Salvar legenda-";
const QString kTranscribing = "Transcrevendo… (vídeos longos podem levar alguns minutos)";

const auto scratch = [](const QString& name) { return AppPaths::dataFolder() + "/fixtures/" + name; };
const auto mediaFolders = [](const QString& folder) { return QDir(folder).entryList({"voxaria-media-*"}, QDir::Dirs); };

// Three seconds of speech under a test picture, as a screen recorder leaves them; made once.
const auto speechVideo = [] {
    static const QString path = [] {
        QDir().mkpath(scratch({}));
        QProcess::execute("ffmpeg",
            {"-loglevel", "error", "-y", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=10", "-i", testDataPath("speech/jfk.wav"), "-t",
                "3", "-c:v", "mpeg4", "-c:a", "aac", scratch("fala.mp4")});
        return scratch("fala.mp4");
    }();
    return path;
};

class VideoTranscriptionWindowTest : public ::testing::Test {
protected:
    FakeWhisper whisper;
    LocalHttpServer server;
    FakeAlerts* alerts = new FakeAlerts;
    FakeFileDialogs* dialogs = new FakeFileDialogs;
    std::shared_ptr<FakeSounds> sounds = std::make_shared<FakeSounds>();
    bool playSounds = true, ytDlpUpdateDeclined = false;
    std::unique_ptr<VideoTranscriptionWindow> view;
    QString systemYtDlp; // the system's copy, when a test gives one

    void SetUp() override
    {
        if (!hasX11())
            VOXARIA_SKIP("needs the headless desktop (run under scripts/with-harness.sh)");
        writeFile(AppPaths::modelsFolder() + "/ggml-small-q5_1.bin", "ggml");
        view = std::make_unique<VideoTranscriptionWindow>(
            VideoTranscriptionWindow::Services{std::shared_ptr<Alerts>(alerts), std::shared_ptr<FileDialogs>(dialogs),
                FeedbackSounds(sounds, [this] { return playSounds; }), std::make_shared<X11ClipboardPasteboard>(),
                // Debian's yt-dlp does not count here: only the copy the window installs, or the test's.
                [this] {
                    const QString installed = YtDlpManager::installedPath();
                    return QFileInfo(installed).isExecutable() ? installed : systemYtDlp.isEmpty() ? std::optional<QString>() : systemYtDlp;
                },
                server.baseUrl().resolved(QUrl("yt-dlp")), [] { return std::make_unique<FFmpegMediaReader>(); }, [] { return QString(); },
                {[this] { return ytDlpUpdateDeclined; }, [this](const bool& declined) { ytDlpUpdateDeclined = declined; }}});
        view->show();
        ASSERT_TRUE(QTest::qWaitForWindowActive(view->window()));
    }
    void TearDown() override
    {
        view.reset();
        EXPECT_TRUE(waitUntil([] { return mediaFolders(AppPaths::temporaryFolder()).isEmpty(); }, 10s));
    }

    template <typename Widget> Widget* find(const char* name) const { return view->window()->findChild<Widget*>(name); }
    QString status() const { return find<QLabel>("statusLabel")->text(); }
    QString result() const { return find<QPlainTextEdit>("resultView")->toPlainText(); }
    void click(const char* button) { QTest::mouseClick(find<QPushButton>(button), Qt::LeftButton); }
    bool statusBecomes(const QString& start, std::chrono::milliseconds timeout = 60s)
    {
        return waitUntil([&] { return status().startsWith(start); }, timeout);
    }
    void enter(const QString& text)
    {
        find<QLineEdit>("urlField")->clear();
        QTest::keyClicks(find<QLineEdit>("urlField"), text);
        QTest::keyClick(find<QLineEdit>("urlField"), Qt::Key_Return);
    }
    // The controls as the user sees them: "+" enabled, "-" disabled or hidden; the bar's percent.
    QString state() const
    {
        const auto on = [this](const char* name) { return find<QPushButton>(name)->isEnabled() ? "+" : "-"; };
        const QProgressBar* bar = find<QProgressBar>("progressBar");
        const QString progress = !bar->isVisible() ? "no bar" : bar->maximum() == 0 ? "bar ~" : QString("bar %1%").arg(bar->value() / 10);
        return QString("Transcrever%1 %2 %3 | Copiar%4 Salvar texto%5 Salvar legenda%6")
            .arg(on("transcribeButton"), find<QPushButton>("cancelButton")->isVisible() ? "Cancelar" : "-", progress, on("copyButton"),
                on("saveTxtButton"), on("saveSrtButton"));
    }
    static bool drop(QWidget* target, QMimeData& dragged)
    {
        QDragEnterEvent dragEnter(QPoint(5, 5), Qt::CopyAction, &dragged, Qt::LeftButton, {});
        QApplication::sendEvent(target, &dragEnter);
        QDropEvent dropped(QPointF(5, 5), Qt::CopyAction, &dragged, Qt::LeftButton, {});
        QApplication::sendEvent(target, &dropped);
        return dragEnter.isAccepted() && dropped.isAccepted();
    }
};

// Bad input ends in one status line and leaves the window usable; a chosen file or a dropped link
// replaces the field's text; the window can be maximized.
TEST_F(VideoTranscriptionWindowTest, BadInputEndsInOneStatusLineAChosenFileOrADroppedLinkFillsTheFieldAndItMaximizes)
{
    QDir().mkpath(scratch({}));
    const struct {
        QString input, status;
        int alerts = 0;
        std::function<void()> arrange;
    } cases[] = {
        {"   ", ""},
        {"HTTPS://exemplo.com/video", "⚠️ Arquivo não encontrado: HTTPS://exemplo.com/video"},
        {"  " + scratch({}) + " ", "⚠️ O arquivo não contém trilha de áudio."},
        {"https://exemplo.com/video", "⚠️ O arquivo não contém trilha de áudio.", 1}, // the offer declined: nothing changes
        {"https://exemplo.com/video", "⚠️ Baixe um modelo primeiro (menu → Modelo Whisper).", 1,
            [] { QDir(AppPaths::modelsFolder()).removeRecursively(); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.input.toStdString());
        if (c.arrange)
            c.arrange();
        enter(c.input);
        EXPECT_TRUE(waitUntil([&] { return status() == c.status && state() == kIdle; }, 60s))
            << status().toStdString() << " " << state().toStdString();
        EXPECT_EQ(alerts->shown.size(), c.alerts);
    }

    auto* field = find<QLineEdit>("urlField");
    field->setText("texto antigo");
    click("chooseButton");
    EXPECT_EQ(field->text(), "texto antigo") << "a cancelled dialog changes nothing";
    dialogs->answers = {speechVideo()};
    click("chooseButton");
    EXPECT_EQ(field->text(), speechVideo());
    EXPECT_EQ(dialogs->shown, QStringList(2, "open|Escolher arquivo|Vídeo ou áudio|video/*,audio/*"));

    // A browser drags a link as an address, or as plain text; either replaces what the field held.
    QMimeData address;
    address.setUrls({QUrl("https://videos.exemplo/v/3?t=10")});
    address.setText("https://videos.exemplo/v/3?t=10");
    EXPECT_TRUE(drop(field, address));
    EXPECT_EQ(field->text(), "https://videos.exemplo/v/3?t=10");
    QMimeData text;
    text.setText("  https://videos.exemplo/v/4 ");
    EXPECT_TRUE(drop(find<QPlainTextEdit>("resultView")->viewport(), text));
    EXPECT_EQ(field->text(), "https://videos.exemplo/v/4");

    // What a window manager reads to offer maximizing: the Motif hints' functions (0x10) and decorations (0x40).
    QProcess xprop;
    xprop.start("xprop", {"-id", QString::number(view->window()->winId()), "_MOTIF_WM_HINTS"});
    ASSERT_TRUE(xprop.waitForFinished());
    const QStringList hints = QString(xprop.readAllStandardOutput()).section('=', 1).split(',') + QStringList(3, {});
    EXPECT_TRUE((hints[1].trimmed().toInt(nullptr, 16) & 0x10) && (hints[2].trimmed().toInt(nullptr, 16) & 0x40))
        << hints.join(',').toStdString();
    view->window()->showMaximized();
    EXPECT_TRUE(waitUntil([&] { return view->window()->isMaximized(); }, 5s));
}

// A run can be cancelled or ended by closing; a finished one shows the text, and what is copied and
// saved is the job's own, every character as it came.
TEST_F(VideoTranscriptionWindowTest, ARunEndsByCancelOrCloseOrBecomesTextThatIsCopiedSavedAndClosingRemovesItsSubtitles)
{
    whisper.script("hold=1");
    enter(speechVideo());
    ASSERT_TRUE(statusBecomes(kTranscribing)) << status().toStdString();
    EXPECT_EQ(state(), "Transcrever- Cancelar bar ~ | Copiar- Salvar texto- Salvar legenda-");
    click("cancelButton");
    ASSERT_TRUE(statusBecomes("⚠️ Operação cancelada.")) << status().toStdString();
    EXPECT_EQ(state(), kIdle);
    enter(speechVideo());
    ASSERT_TRUE(statusBecomes(kTranscribing)) << status().toStdString();
    view->window()->close();
    EXPECT_TRUE(statusBecomes("⚠️ Operação cancelada.")) << status().toStdString();
    view->show();
    ASSERT_TRUE(QTest::qWaitForWindowActive(view->window()));

    const QString text = "Olá 👍🏽 cafe\u0301\u00A0🇧🇷\u2028e\u0301\u0302\u00A0%";
    whisper.script("text_hex=" + text.toUtf8().toHex() + "\nprogress=5,42\nhold=1");
    QMimeData dragged;
    dragged.setUrls({QUrl::fromLocalFile(speechVideo())});
    ASSERT_TRUE(drop(find<QPlainTextEdit>("resultView")->viewport(), dragged));
    ASSERT_EQ(find<QLineEdit>("urlField")->text(), speechVideo());
    QTest::keyClick(find<QPlainTextEdit>("resultView"), Qt::Key_Return);

    ASSERT_TRUE(statusBecomes("Transcrevendo… 42%")) << status().toStdString();
    EXPECT_EQ(state(), "Transcrever- Cancelar bar 42% | Copiar- Salvar texto- Salvar legenda-");
    writeFile(whisper.binaryPath() + ".release", "");
    ASSERT_TRUE(statusBecomes("✅ Concluído — 16 caracteres.")) << status().toStdString();
    QFile::remove(whisper.binaryPath() + ".release");
    const QString shown = QString(text).replace(QChar::Nbsp, ' ').replace(QChar::LineSeparator, '\n');
    EXPECT_EQ(result(), shown);
    EXPECT_EQ(state(), "Transcrever+ - no bar | Copiar+ Salvar texto+ Salvar legenda+");
    EXPECT_EQ(sounds->played, QStringList{"Glass"});

    click("copyButton");
    EXPECT_EQ(QApplication::clipboard()->text(), text);
    // A new text file, subtitles over older ones; then the same into a folder that refuses writing.
    const QString folder = scratch("saida"), txt = folder + "/transcricao.txt", srt = folder + "/legenda.srt";
    const QByteArray subtitles = "1\n00:00:00,000 --> 00:00:02,000\n" + text.toUtf8() + "\n";
    writeFile(srt, "legenda antiga");
    dialogs->answers = {txt, srt};
    click("saveTxtButton");
    click("saveSrtButton");
    EXPECT_EQ(DesktopApps::readAll(txt), text.toUtf8());
    EXPECT_EQ(DesktopApps::readAll(srt), subtitles);
    writeFile(txt, "texto guardado");
    // Immutable, so that not even root may write there.
    ASSERT_TRUE(QProcess::execute("chattr", {"+i", folder}) == 0 || QFile::setPermissions(folder, QFile::ReadOwner | QFile::ExeOwner));
    dialogs->answers = {txt, srt};
    click("saveTxtButton");
    click("saveSrtButton");
    QProcess::execute("chattr", {"-i", folder});
    EXPECT_EQ(DesktopApps::readAll(txt), "texto guardado");
    EXPECT_EQ(DesktopApps::readAll(srt), subtitles);
    EXPECT_EQ(status(), "✅ Concluído — 16 caracteres.");

    // Closed and opened again: the same texts, but the subtitle file is gone and cannot be saved.
    view->window()->close();
    EXPECT_TRUE(mediaFolders(AppPaths::temporaryFolder()).isEmpty());
    view->show();
    EXPECT_EQ(result(), shown);
    EXPECT_EQ(state(), "Transcrever+ - no bar | Copiar+ Salvar texto+ Salvar legenda-");
}

// No yt-dlp: the offered one can be stopped, or fetches the link at once; an old one is offered anew.
TEST_F(VideoTranscriptionWindowTest, TheOfferedYtDlpCanBeStoppedOrFetchesTheLinkAndAnOldOneIsOfferedAnew)
{
    const QByteArray fakeYtDlp = DesktopApps::readAll(fakesPath("yt-dlp"));
    writeFile(YtDlpManager::installedPath() + ".control", ("source=" + speechVideo()).toUtf8());
    whisper.script("text=baixado pelo yt-dlp novo\nnosrt=1");
    playSounds = false;
    const QString link = "https://videos.exemplo/v/1";

    server.setRoute("yt-dlp", {.body = fakeYtDlp, .holdAt = fakeYtDlp.size() / 2});
    alerts->answers = QStringList{"Instalar"};
    enter(link);
    ASSERT_TRUE(statusBecomes("Baixando yt-dlp… ")) << status().toStdString();
    EXPECT_TRUE(state().startsWith("Transcrever- Cancelar bar ") && state().endsWith("% | Copiar- Salvar texto- Salvar legenda-"))
        << state().toStdString();
    click("cancelButton");
    EXPECT_EQ(state(), kIdle);
    EXPECT_EQ(status(), "");
    EXPECT_FALSE(QFile::exists(YtDlpManager::installedPath()));

    server.setRoute("yt-dlp", {.body = fakeYtDlp});
    alerts->answers = QStringList{"Instalar"};
    enter(link);
    ASSERT_TRUE(statusBecomes("✅")) << status().toStdString();
    EXPECT_EQ(result(), "baixado pelo yt-dlp novo");
    EXPECT_EQ(state(), "Transcrever+ - no bar | Copiar+ Salvar texto+ Salvar legenda-") << "no subtitles came";
    EXPECT_TRUE(sounds->played.isEmpty());

    // A failure yt-dlp explains is told in a few words, its own kept behind "Detalhes".
    const QString line = "ERROR: [youtube] abc: Private video. Sign in if you've been granted access to this video";
    writeFile(YtDlpManager::installedPath() + ".control", ("fail=2\nstderr=" + line).toUtf8());
    QFile::remove(YtDlpManager::installedPath() + ".runlog"); // its count of failures starts afresh
    enter(link);
    ASSERT_TRUE(statusBecomes("⚠️ Este vídeo é privado.")) << status().toStdString();
    EXPECT_FALSE(find<QPlainTextEdit>("detailsView")->isVisible());
    QTest::mouseClick(find<QToolButton>("detailsButton"), Qt::LeftButton);
    EXPECT_TRUE(find<QPlainTextEdit>("detailsView")->isVisible());
    EXPECT_EQ(find<QPlainTextEdit>("detailsView")->toPlainText(), line);

    // A system copy over a year old is offered anew until "Agora não" (a failed install is no answer).
    QFile::remove(YtDlpManager::installedPath());
    alerts->shown.clear();
    systemYtDlp = scratch("sistema/yt-dlp");
    writeFile(systemYtDlp, fakeYtDlp, true);
    server.setRoute("yt-dlp", {.status = 404});
    const QString fetchFailed = "⚠️ Falha ao baixar o vídeo: arquivo baixado não encontrado";
    const struct {
        QDate version;
        QString answer;
        int offers;
        QString outcome;
    } runs[] = {
        {QDate::currentDate().addMonths(-11), "", 0, fetchFailed},
        {QDate(2023, 3, 4), "Baixar", 1, "⚠️ Falha ao instalar yt-dlp: o servidor respondeu com o status HTTP 404."},
        {QDate(2023, 3, 4), "Agora não", 2, fetchFailed},
        {QDate(2023, 3, 4), "", 2, fetchFailed},
    };
    int run = 0;
    for (const auto& r : runs) {
        SCOPED_TRACE(run);
        // As a package upgrade would, a new version comes with a new file.
        ASSERT_EQ(QProcess::execute("touch", {"-d", "@" + QString::number(QDateTime::currentSecsSinceEpoch() + ++run), systemYtDlp}), 0);
        writeFile(systemYtDlp + ".control", ("version=" + r.version.toString("yyyy.MM.dd")).toUtf8());
        alerts->answers = QStringList{r.answer};
        find<QLabel>("statusLabel")->clear();
        enter(link);
        EXPECT_TRUE(waitUntil([&] { return status() == r.outcome && state() == kIdle; }, 120s)) << status().toStdString();
        EXPECT_EQ(alerts->shown.size(), r.offers);
    }
    EXPECT_TRUE(ytDlpUpdateDeclined);
    EXPECT_EQ(alerts->shown.value(1).messageText, "Atualizar o yt-dlp?");
    EXPECT_EQ(alerts->shown.value(1).informativeText,
        "O yt-dlp do sistema é de 04/03/2023 e pode não funcionar com os sites de hoje. Baixar uma versão atual para o Voxaria?");

    // The site changed under the system's copy: the offer comes although it was declined.
    const QString siteChanged
        = "ERROR: [youtube] abc: Unable to extract uploader id; please report this issue on https://github.com/yt-dlp";
    QFile::remove(systemYtDlp + ".runlog");
    writeFile(systemYtDlp + ".control", ("version=2023.03.04\nfail=2\nstderr=" + siteChanged).toUtf8());
    writeFile(YtDlpManager::installedPath() + ".control", ("source=" + speechVideo()).toUtf8());
    server.setRoute("yt-dlp", {.body = fakeYtDlp});
    alerts->answers = QStringList{"Baixar"};
    enter(link);
    ASSERT_TRUE(statusBecomes("✅", 120s)) << status().toStdString();
    ASSERT_EQ(alerts->shown.size(), 3);
    EXPECT_EQ(alerts->shown.value(2).informativeText,
        "O site mudou e o yt-dlp do sistema não o entende mais. Baixar uma versão atual para o Voxaria?");
    EXPECT_EQ(result(), "baixado pelo yt-dlp novo");
    EXPECT_EQ(DesktopApps::readAll(YtDlpManager::installedPath()), fakeYtDlp);
}

// The real program: opened from the tray, a link fetched by Debian's yt-dlp, subtitles saved through
// the real dialog, closed with Ctrl+W.
TEST(VideoTranscriptionWindowEndToEnd, FromTheTrayMenuToSavedSubtitlesLeavingNothingBehind)
{
    if (!hasX11() || !QFileInfo("/usr/bin/yt-dlp").isExecutable())
        VOXARIA_SKIP("needs the headless desktop (scripts/with-harness.sh) and Debian's yt-dlp");
    constexpr int enterKey = 36;
    // Keys and text go to the focused window: the one just shown, or the open dialog.
    const auto xdotool = [](const QStringList& arguments) { return QProcess::execute("xdotool", arguments) == 0; };
    LocalHttpServer server;
    server.setRoute("fala.mp4", {DesktopApps::readAll(speechVideo())});
    AppRun app(VOXARIA_HELPER_voxaria_localmodels);
    app.useFakeWhisper("text=legenda de ponta a ponta\nprogress=50,100");
    app.setSetting("ytDlpUpdateDeclined", true); // Debian's old yt-dlp: the offer of a current one was declined
    ASSERT_TRUE(app.start());
    ASSERT_TRUE(Desktop::clickTrayIcon());
    ASSERT_TRUE(app.waitForLog("menu shown", 10s)) << app.log().join('\n').toStdString();
    ASSERT_TRUE(xdotool({"key", "Down", "Return"}));
    ASSERT_TRUE(Desktop::waitForWindow("Transcrever v.*deo ou link", 10s));

    ASSERT_TRUE(xdotool({"key", "ctrl+a", "type", server.baseUrl().toString() + "fala.mp4"}));
    XTestKeyboard::tap(enterKey, 20ms);
    ASSERT_TRUE(app.waitForLog("✅ Concluído — 24 caracteres.", 120s)) << app.log().join('\n').toStdString();
    // Shift+Tab from the field wraps round to the last button, "Salvar legenda (.srt)…".
    const QString saved = app.root() + "/legenda-salva.srt";
    ASSERT_TRUE(xdotool({"key", "shift+Tab", "space"}));
    ASSERT_TRUE(Desktop::waitForWindow("Salvar legenda", 10s));
    ASSERT_TRUE(xdotool({"key", "ctrl+a", "type", saved}));
    XTestKeyboard::tap(enterKey, 20ms);
    EXPECT_TRUE(waitUntil([&] { return DesktopApps::readAll(saved).contains("legenda de ponta a ponta"); }, 10s));

    // Nothing gives the focus back when the dialog closes: no window manager runs here.
    ASSERT_TRUE(xdotool({"search", "--onlyvisible", "--name", "^Transcrever v.*deo ou link$", "windowfocus", "--sync"}));
    ASSERT_TRUE(xdotool({"key", "ctrl+w"}));
    EXPECT_TRUE(waitUntil([&] { return mediaFolders(app.temporaryFolder()).isEmpty(); }, 10s))
        << mediaFolders(app.temporaryFolder()).join(' ').toStdString();
}

}
