// The video transcription window driven as a user drives it (typing, Return, clicks, dialogs
// answered) over the real pipeline with fake whisper-cli and yt-dlp programs, Debian's yt-dlp and a
// local web server; and once in the real program, opened from its tray menu, where Debian's yt-dlp
// fetches a link.
#include "AppRun.h"
#include "LocalHttpServer.h"
#include "TestSupport.h"
#include "XTestKeyboard.h"
#include "App/Settings.h"
#include "Media/VideoTranscriptionWindow.h"
#include "Media/YtDlpManager.h"
#include "Platform/Fakes/FakeAlerts.h"
#include "Platform/Fakes/FakeFileDialogs.h"
#include "Platform/Fakes/FakeSounds.h"
#include "Shared/AppPaths.h"

#include <QApplication>
#include <QClipboard>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QProcess>
#include <QProgressBar>
#include <QRegularExpression>
#include <QPushButton>
#include <QTest>

#include <unistd.h>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using namespace TestSupport;

namespace {

const QString kIdle = "Transcrever+ - no bar | Copiar- Salvar texto- Salvar legenda-";
const QString kTranscribing = "Transcrevendo… (vídeos longos podem levar alguns minutos)";

QString scratch(const QString& name) { return AppPaths::dataFolder() + "/fixtures/" + name; }
QStringList mediaFolders(const QString& folder) { return QDir(folder).entryList({"voxaria-media-*"}, QDir::Dirs); }

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Three seconds of speech under a test picture, as a screen recorder leaves them; made once.
QString speechVideo()
{
    static const QString path = [] {
        QDir().mkpath(scratch({}));
        QProcess::execute("ffmpeg", {"-loglevel", "error", "-y", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=10", "-i",
                                     testDataPath("speech/jfk.wav"), "-t", "3", "-c:v", "mpeg4", "-c:a", "aac", scratch("fala.mp4")});
        return scratch("fala.mp4");
    }();
    return path;
}

class VideoTranscriptionWindowTest : public ::testing::Test {
protected:
    FakeWhisper whisper;
    LocalHttpServer server;
    FakeAlerts* alerts = new FakeAlerts;
    FakeFileDialogs* dialogs = new FakeFileDialogs;
    FakeSounds* sounds = new FakeSounds;
    std::unique_ptr<VideoTranscriptionWindow> view;

    void SetUp() override
    {
        if (!hasX11())
            GTEST_SKIP() << "needs the headless desktop (run under scripts/with-harness.sh)";
        ASSERT_FALSE(speechVideo().isEmpty());
        writeFile(AppPaths::modelsFolder() + "/ggml-small-q5_1.bin", "ggml");
        Settings::shared().setPlaySounds(true);
        view = std::make_unique<VideoTranscriptionWindow>(VideoTranscriptionWindow::Services{
            std::unique_ptr<Alerts>(alerts), std::unique_ptr<FileDialogs>(dialogs), std::unique_ptr<Sounds>(sounds), {},
            // Debian's yt-dlp does not count here: only the copy the window installs.
            [] { return QFileInfo(YtDlpManager::installedPath()).isExecutable(); },
            server.baseUrl().resolved(QUrl("yt-dlp"))});
        view->show();
        ASSERT_TRUE(QTest::qWaitForWindowActive(view->window()));
    }
    void TearDown() override
    {
        view.reset();
        EXPECT_TRUE(waitUntil([] { return mediaFolders(AppPaths::temporaryFolder()).isEmpty(); }, 10s));
    }

    template<typename Widget>
    Widget* find(const char* name) const { return view->window()->findChild<Widget*>(name); }
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
            .arg(on("transcribeButton"), find<QPushButton>("cancelButton")->isVisible() ? "Cancelar" : "-", progress,
                 on("copyButton"), on("saveTxtButton"), on("saveSrtButton"));
    }
    void screenshot(const QString& name) { EXPECT_TRUE(view->window()->grab().save(Desktop::screenshotFolder() + "/window-" + name + ".png")); }
};

TEST_F(VideoTranscriptionWindowTest, BadInputEndsInOneStatusLineAndLeavesTheWindowUsable)
{
    screenshot("idle");
    writeFile(scratch("notas.txt"), "não é mídia");
    const std::function<void()> noModel = [] { QDir(AppPaths::modelsFolder()).removeRecursively(); };
    const struct {
        QString input;
        QString status;
        int alerts = 0;
        std::function<void()> arrange;
    } cases[] = {
        {"   ", ""},
        {"HTTPS://exemplo.com/video", "⚠️ Arquivo não encontrado: HTTPS://exemplo.com/video"},
        {"  " + scratch({}) + " ", "⚠️ O arquivo não contém trilha de áudio."},
        {scratch("notas.txt"), "⚠️ O arquivo não contém trilha de áudio."},
        {"https://exemplo.com/video", "⚠️ O arquivo não contém trilha de áudio.", 1}, // the offer declined: nothing changes
        {"https://exemplo.com/video", "⚠️ Baixe um modelo primeiro (menu → Modelo Whisper).", 1, noModel},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.input.toStdString());
        if (c.arrange)
            c.arrange();
        enter(c.input);
        EXPECT_TRUE(waitUntil([&] { return status() == c.status && state() == kIdle; }, 60s)) << status().toStdString() << " " << state().toStdString();
        EXPECT_EQ(alerts->shown.size(), c.alerts);
    }
    screenshot("failed");
}

TEST_F(VideoTranscriptionWindowTest, ADroppedVideoBecomesTextThatIsCopiedAndSavedAndClosingRemovesItsSubtitles)
{
    const QString text = "Olá 👍🏽 cafe\u0301 🇧🇷 e\u0301\u0302";
    whisper.script("text=" + text + "\nprogress=5,42\nhold=1");
    QMimeData dragged;
    dragged.setUrls({QUrl::fromLocalFile(speechVideo())});
    QDragEnterEvent dragEnter(QPoint(20, 20), Qt::CopyAction, &dragged, Qt::LeftButton, {});
    QDropEvent drop(QPointF(20, 20), Qt::CopyAction, &dragged, Qt::LeftButton, {});
    QApplication::sendEvent(find<QPlainTextEdit>("resultView")->viewport(), &dragEnter);
    QApplication::sendEvent(find<QPlainTextEdit>("resultView")->viewport(), &drop);
    ASSERT_EQ(find<QLineEdit>("urlField")->text(), speechVideo());
    QTest::keyClick(find<QPlainTextEdit>("resultView"), Qt::Key_Return);

    ASSERT_TRUE(statusBecomes("Transcrevendo… 42%")) << status().toStdString();
    EXPECT_EQ(state(), "Transcrever- Cancelar bar 42% | Copiar- Salvar texto- Salvar legenda-");
    screenshot("running-determinate");
    writeFile(whisper.binaryPath() + ".release", "");
    ASSERT_TRUE(statusBecomes("✅")) << status().toStdString();
    QFile::remove(whisper.binaryPath() + ".release");
    EXPECT_EQ(status(), "✅ Concluído — 14 caracteres.");
    EXPECT_EQ(result(), text);
    EXPECT_EQ(state(), "Transcrever+ - no bar | Copiar+ Salvar texto+ Salvar legenda+");
    EXPECT_EQ(sounds->played, QStringList{"Glass"});
    screenshot("finished");

    click("copyButton");
    EXPECT_EQ(QApplication::clipboard()->text(), text);
    // A new text file, subtitles over older ones; then the same into a folder that refuses writing.
    const QString folder = scratch("saida"), txt = folder + "/transcricao.txt", srt = folder + "/legenda.srt";
    const QByteArray subtitles = "1\n00:00:00,000 --> 00:00:02,000\n" + text.toUtf8() + "\n";
    writeFile(srt, "legenda antiga");
    dialogs->answers = {txt, srt};
    click("saveTxtButton");
    click("saveSrtButton");
    EXPECT_EQ(contents(txt), text.toUtf8());
    EXPECT_EQ(contents(srt), subtitles);
    EXPECT_EQ(dialogs->shown, QStringList({"save|Salvar texto|Texto|text/plain|transcricao.txt",
                                           "save|Salvar legenda|Legendas SubRip|application/x-subrip|legenda.srt"}));
    writeFile(txt, "texto guardado");
    const QStringList lock = geteuid() == 0 ? QStringList{"chattr", "+i", folder} : QStringList{"chmod", "a-w", folder};
    ASSERT_EQ(QProcess::execute(lock[0], lock.mid(1)), 0);
    dialogs->answers = {txt, srt};
    click("saveTxtButton");
    click("saveSrtButton");
    QProcess::execute(lock[0], {lock[1] == "+i" ? "-i" : "u+w", folder});
    EXPECT_EQ(contents(txt), "texto guardado");
    EXPECT_EQ(contents(srt), subtitles);
    EXPECT_EQ(status(), "✅ Concluído — 14 caracteres.");

    // Closed and opened again: the same texts, but the subtitle file is gone and cannot be saved.
    ASSERT_EQ(mediaFolders(AppPaths::temporaryFolder()).size(), 1);
    view->window()->close();
    EXPECT_TRUE(mediaFolders(AppPaths::temporaryFolder()).isEmpty());
    view->show();
    EXPECT_EQ(result(), text);
    EXPECT_EQ(state(), "Transcrever+ - no bar | Copiar+ Salvar texto+ Salvar legenda-");
}

TEST_F(VideoTranscriptionWindowTest, ARunCanBeCancelledOrEndedByClosingAndOneWithoutSubtitlesOffersNone)
{
    Settings::shared().setPlaySounds(false);
    whisper.script("text=sem legenda\nnosrt=1");
    enter(speechVideo());
    ASSERT_TRUE(statusBecomes("✅")) << status().toStdString();
    EXPECT_EQ(state(), "Transcrever+ - no bar | Copiar+ Salvar texto+ Salvar legenda-");
    view->saveSrt();
    EXPECT_TRUE(dialogs->shown.isEmpty() && sounds->played.isEmpty());

    whisper.script("hold=1");
    enter(speechVideo());
    ASSERT_TRUE(statusBecomes(kTranscribing)) << status().toStdString();
    EXPECT_EQ(state(), "Transcrever- Cancelar bar ~ | Copiar- Salvar texto- Salvar legenda-");
    EXPECT_EQ(result(), "");
    screenshot("running-indeterminate");
    click("cancelButton");
    ASSERT_TRUE(statusBecomes("⚠️ Operação cancelada.")) << status().toStdString();
    EXPECT_EQ(state(), kIdle);

    QFile::remove(whisper.binaryPath() + ".terminated");
    QFile::remove(whisper.binaryPath() + ".lastargs");
    enter(speechVideo());
    ASSERT_TRUE(waitUntil([&] { return QFile::exists(whisper.binaryPath() + ".lastargs"); }, 60s)) << status().toStdString();
    view->window()->close();
    EXPECT_TRUE(waitUntil([&] { return QFile::exists(whisper.binaryPath() + ".terminated"); }, 10s)) << "whisper-cli still runs";
}

TEST_F(VideoTranscriptionWindowTest, TheOfferedYtDlpCanBeStoppedFailsWithItsReasonOrFetchesTheLinkAtOnce)
{
    const QByteArray fakeYtDlp = contents(fakesPath("yt-dlp"));
    writeFile(YtDlpManager::installedPath() + ".control", ("source=" + speechVideo() + "\next=mp4").toUtf8());
    whisper.script("text=baixado pelo yt-dlp novo");
    const QString link = "https://videos.exemplo/v/1";

    server.setRoute("yt-dlp", {.body = fakeYtDlp, .holdAt = fakeYtDlp.size() / 2});
    alerts->answers = QStringList{"Instalar"};
    enter(link);
    ASSERT_TRUE(statusBecomes("Baixando yt-dlp… ")) << status().toStdString();
    EXPECT_TRUE(QRegularExpression(R"(^Transcrever- Cancelar bar \d+% \| Copiar- Salvar texto- Salvar legenda-$)").match(state()).hasMatch()) << state().toStdString();
    click("cancelButton");
    EXPECT_EQ(state(), kIdle);
    EXPECT_EQ(status(), "");
    EXPECT_FALSE(QFile::exists(YtDlpManager::installedPath()));

    server.setRoute("yt-dlp", {.body = "não existe", .status = 404});
    alerts->answers = QStringList{"Instalar"};
    enter(link);
    ASSERT_TRUE(statusBecomes("⚠️ Falha ao instalar yt-dlp: ")) << status().toStdString();
    EXPECT_EQ(state(), kIdle);

    server.setRoute("yt-dlp", {.body = fakeYtDlp});
    alerts->answers = QStringList{"Instalar"};
    enter(link);
    ASSERT_TRUE(statusBecomes("✅")) << status().toStdString();
    EXPECT_EQ(result(), "baixado pelo yt-dlp novo");
    EXPECT_EQ(alerts->shown.size(), 3);
}

// The real program: the window opened from the tray menu, a file and a link transcribed, the
// subtitles saved through the real save dialog, the window closed with Ctrl+W.
TEST(VideoTranscriptionWindowEndToEnd, FromTheTrayMenuToSavedSubtitlesLeavingNothingBehind)
{
    if (!hasX11() || !QFileInfo("/usr/bin/yt-dlp").isExecutable())
        GTEST_SKIP() << "needs the headless desktop (scripts/with-harness.sh) and Debian's yt-dlp";
    constexpr int downKey = 116, enterKey = 36, tabKey = 23, leftShift = 50, spaceKey = 65;
    // Focuses the visible window of that title and sends it xdotool's keys or text.
    const auto xdotool = [](const QString& title, const QStringList& arguments) {
        QProcess search;
        search.start("xdotool", {"search", "--onlyvisible", "--name", title});
        const QStringList windows = search.waitForFinished() ? QString(search.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts) : QStringList();
        if (windows.isEmpty())
            return false;
        XTestKeyboard::focus(windows.last().toULongLong());
        return QProcess::execute("xdotool", arguments) == 0;
    };
    LocalHttpServer server;
    server.setRoute("fala.mp4", {contents(speechVideo())});
    AppRun app(VOXARIA_HELPER_voxaria_localmodels);
    app.useFakeWhisper("text=legenda de ponta a ponta\nprogress=50,100");
    ASSERT_TRUE(app.start());
    ASSERT_TRUE(Desktop::clickTrayIcon());
    ASSERT_TRUE(app.waitForLog("menu shown", 10s)) << app.log().join('\n').toStdString();
    XTestKeyboard::tap(downKey, 20ms);
    XTestKeyboard::tap(enterKey, 20ms);
    ASSERT_TRUE(Desktop::waitForWindow("Transcrever v.*deo ou link", 10s));

    for (const QString& input : {speechVideo(), server.baseUrl().toString() + "fala.mp4"}) {
        const int from = app.lineCount();
        ASSERT_TRUE(xdotool("^Transcrever v.*deo ou link$", {"key", "ctrl+a", "type", input}));
        XTestKeyboard::tap(enterKey, 20ms);
        ASSERT_TRUE(app.waitForLog("✅ Concluído — 24 caracteres.", 120s, from)) << app.log().join('\n').toStdString();
    }
    // Shift+Tab from the field wraps round to the last button, "Salvar legenda (.srt)…".
    const QString saved = app.root() + "/legenda-salva.srt";
    XTestKeyboard::press(leftShift);
    XTestKeyboard::tap(tabKey, 20ms);
    XTestKeyboard::release(leftShift);
    XTestKeyboard::tap(spaceKey, 20ms);
    ASSERT_TRUE(Desktop::waitForWindow("Salvar legenda", 10s));
    ASSERT_TRUE(xdotool("^Salvar legenda$", {"key", "ctrl+a", "type", saved}));
    XTestKeyboard::tap(enterKey, 20ms);
    EXPECT_TRUE(waitUntil([&] { return contents(saved).contains("legenda de ponta a ponta"); }, 10s));

    ASSERT_TRUE(xdotool("^Transcrever v.*deo ou link$", {"key", "ctrl+w"}));
    EXPECT_TRUE(app.waitForLog("video transcription window closed", 10s)) << app.log().join('\n').toStdString();
    EXPECT_TRUE(waitUntil([&] { return mediaFolders(app.temporaryFolder()).isEmpty(); }, 10s))
        << mediaFolders(app.temporaryFolder()).join(' ').toStdString();
}

}
