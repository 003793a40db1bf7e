#include "AppRun.h"
#include "Dictation/HUDPanel.h"
#include "TestSupport.h"
#include "XTestKeyboard.h"

#include <QGuiApplication>
#include <QLabel>
#include <QPixmap>
#include <QProcess>
#include <QScreen>

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace {

const QString listening = "🎙️ Ouvindo… (solte a tecla para inserir)";
// Far more than the panel's three lines of text; the panel keeps its end.
const QString longText = "No princípio era o silêncio, " + QStringLiteral("e depois vieram as palavras, ").repeated(20) + "fim da frase.";
// What a fresh install shows at the first press on the native engine, about 900 px wide.
const QString nativeEngineError = QStringLiteral("⚠️ Reconhecimento de fala indisponível para o idioma pt-BR. "
                                                 "Baixe o modelo do motor nativo no menu ou escolha outro idioma.");

TEST(HUDPanelPlacement, GoesToTheScreenHoldingThePointer)
{
    const HUDPanel::ScreenArea left{QRect(0, 0, 1920, 1080), QRect(0, 30, 1920, 1000)};
    const HUDPanel::ScreenArea right{QRect(1920, 0, 1280, 1024), QRect(1920, 0, 1280, 1024)};
    // Centred, 80 px above the bottom of the area that panels leave free.
    EXPECT_EQ(HUDPanel::placement({left, right}, left, QPoint(100, 100), 50), QRect(960 - 210, 30 + 1000 - 80 - 50, 420, 50));
    EXPECT_EQ(HUDPanel::placement({left, right}, left, QPoint(2500, 900), 50), QRect(1920 + 640 - 210, 1024 - 80 - 50, 420, 50));
    EXPECT_EQ(HUDPanel::placement({}, std::nullopt, QPoint(0, 0), 50), std::nullopt);
}

// The panel as a user sees it, on the real X server.
class HUDPanelTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!TestSupport::hasX11())
            VOXARIA_SKIP("needs the X server of scripts/with-harness.sh");
    }
    QRect frame() const { return hud.panel()->geometry(); }
    QLabel* label(const char* name) const { return hud.panel()->findChild<QLabel*>(name); }
    // Whether the label's text, wrapped as the label draws it, lies within the label, and the label on the panel.
    bool showsAllOf(const char* name) const
    {
        const QLabel* shown = label(name);
        const QRect area = shown->contentsRect();
        const QRect text = shown->fontMetrics().boundingRect(area, Qt::TextWordWrap | shown->alignment(), shown->text());
        return area.contains(text) && hud.panel()->rect().contains(QRect(shown->mapTo(hud.panel(), QPoint()), shown->size()));
    }
    // On the screen, its bottom edge 80 px above the screen's bottom however tall it grows.
    bool inPlace() const
    {
        const QRect visible = QGuiApplication::primaryScreen()->availableGeometry();
        return frame().bottom() == visible.bottom() - 80 && visible.contains(frame());
    }

    HUDPanel hud;
};

// A status far wider than the panel, as the engines report errors, wraps onto lines that all show
// (one of kilobytes keeps its beginning); the text under it keeps its end behind a leading ellipsis.
// Dark over the front window, it takes no focus and lets clicks through; an emptied text gives its
// line back, and updates never show a hidden panel.
TEST_F(HUDPanelTest, AllItShowsFitsOnThePanelWhichSitsDarkOverTheFrontWindowWithoutTakingItsFocusOrClicks)
{
    ReceivingWindow receiver;
    ASSERT_TRUE(receiver.start()) << "the receiving window did not come up";
    // The light window fills the screen, so the panel's translucency and rounded corners show on it.
    const QString window = QString::number(receiver.windowId());
    QProcess::execute("xdotool", {"windowsize", window, "1920", "1080", "windowmove", window, "0", "0"});
    hud.show(listening, QString());
    const QRect statusOnly = frame();
    EXPECT_FALSE(label("textLabel")->isVisible());
    hud.update(QStringLiteral("🎙️").repeated(400));
    EXPECT_FALSE(label("textLabel")->text().at(1).isLowSurrogate()) << "the cut split a character";

    const QString whisperError
        = QStringLiteral("⚠️ Falha na transcrição Whisper: error: failed to open "
                         "'/home/usuario/.local/share/Voxaria/models/ggml-large-v3-turbo-q5_0-pt-BR-ajustado.bin' as a model file");
    const QString runaway = "⚠️ Falha na transcrição Whisper: " + QStringLiteral("ruído ").repeated(4000);
    for (const QString& status : {listening, whisperError, runaway, nativeEngineError}) {
        SCOPED_TRACE(status.left(100).toStdString());
        hud.show(status, longText);
        EXPECT_TRUE(TestSupport::waitUntil([&] { return showsAllOf("statusLabel") && showsAllOf("textLabel"); }))
            << "part of it is cut off";
        const QString shown = QString(label("statusLabel")->text()).remove(QChar(0x200B));
        EXPECT_TRUE(shown == status || (status == runaway && status.startsWith(shown.chopped(1)))) << shown.toStdString();
        const QString text = label("textLabel")->text();
        EXPECT_TRUE(text.startsWith(QChar(0x2026)) && longText.endsWith(text.mid(1)) && text.size() > 100) << text.toStdString();
        EXPECT_TRUE(inPlace());
    }
    TestSupport::spin(400ms);
    EXPECT_EQ(XTestKeyboard::focusedWindow(), receiver.windowId());
    const QPoint middle = frame().center();
    QProcess::execute("xdotool", {"mousemove", QString::number(middle.x()), QString::number(middle.y())});
    QProcess where;
    where.start("xdotool", {"getmouselocation", "--shell"});
    where.waitForFinished();
    const QByteArray location = where.readAllStandardOutput();
    EXPECT_TRUE(location.contains("WINDOW=" + window.toLatin1() + "\n"))
        << "the pointer does not reach the window beneath the HUD: " << location.toStdString();

    const QRect around = frame().adjusted(-40, -40, 40, 40);
    const QPixmap shot = QGuiApplication::primaryScreen()->grabWindow(0, around.x(), around.y(), around.width(), around.height());
    const QString path = Desktop::screenshotFolder() + "/hud-error-and-long-text.png";
    ASSERT_TRUE(shot.save(path));
    std::printf("HUD screenshot: %s\n", qPrintable(path));
    const QImage image = shot.toImage();
    EXPECT_LT(image.pixelColor(image.width() / 2, 40 + 4).lightness(), 60);
    EXPECT_GT(image.pixelColor(10, 10).lightness(), 200);

    hud.show(listening, longText);
    hud.update(QString());
    EXPECT_EQ(frame(), statusOnly) << "an emptied text kept its line";
    hud.hide();
    hud.update("depois de esconder");
    EXPECT_FALSE(hud.panel()->isVisible());
}

}
