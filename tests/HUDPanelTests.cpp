#include "AppRun.h"
#include "Dictation/HUDPanel.h"
#include "TestSupport.h"
#include "XTestKeyboard.h"

#include <QFontMetrics>
#include <QGuiApplication>
#include <QLabel>
#include <QPixmap>
#include <QProcess>
#include <QScreen>

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace {

const QString listening = QStringLiteral("🎙️ Ouvindo… (solte a tecla para inserir)");
const QString longText = QStringLiteral(
    "No princípio era o silêncio, e depois vieram as palavras, uma depois da outra, sem pressa, enquanto a "
    "tecla continuava apertada e o microfone ouvia tudo com atenção; a frase cresceu, passou de uma linha, "
    "passou de duas, passou de três, e ainda assim continuou a crescer até que só o seu final coubesse no "
    "painel, que mostra sempre as últimas palavras ditas: fim da frase.");

TEST(HUDPanelPlacement, GoesToTheScreenHoldingThePointerElseToTheMainOne)
{
    const HUDPanel::ScreenArea left{QRect(0, 0, 1920, 1080), QRect(0, 30, 1920, 1000)};
    const HUDPanel::ScreenArea right{QRect(1920, 0, 1280, 1024), QRect(1920, 0, 1280, 1024)};
    const QList<HUDPanel::ScreenArea> screens = {left, right};
    const QRect onLeft(960 - 210, 30 + 1000 - 80 - 50, 420, 50);
    const QRect onRight(1920 + 640 - 210, 1024 - 80 - 50, 420, 50);

    EXPECT_EQ(HUDPanel::placement(screens, left, QPoint(100, 100), 50), onLeft);
    EXPECT_EQ(HUDPanel::placement(screens, left, QPoint(2500, 900), 50), onRight);
    // The left edge of a screen belongs to it, its right edge to its neighbour.
    EXPECT_EQ(HUDPanel::placement(screens, left, QPoint(1920, 0), 50), onRight);
    EXPECT_EQ(HUDPanel::placement(screens, left, QPoint(1919, 1079), 50), onLeft);
    // Outside every screen: the main screen, even when it is not the first of the list.
    EXPECT_EQ(HUDPanel::placement(screens, right, QPoint(5000, -40), 50), onRight);
    EXPECT_EQ(HUDPanel::placement({}, std::nullopt, QPoint(0, 0), 50), std::nullopt);
}

class HUDPanelTest : public ::testing::Test {
protected:
    HUDPanel hud;
    QRect frame() const { return hud.panel()->geometry(); }
    QLabel* statusLabel() const { return hud.panel()->findChild<QLabel*>(QStringLiteral("statusLabel")); }
    QLabel* textLabel() const { return hud.panel()->findChild<QLabel*>(QStringLiteral("textLabel")); }
};

TEST_F(HUDPanelTest, IsHiddenUntilShownAndUpdateNeverShowsIt)
{
    hud.update(QStringLiteral("parcial"));
    EXPECT_FALSE(hud.panel()->isVisible());

    hud.show(listening, QString());
    EXPECT_TRUE(hud.panel()->isVisible());
    EXPECT_EQ(statusLabel()->text(), listening);
    EXPECT_EQ(hud.panel()->accessibleName(), listening);
    EXPECT_FALSE(textLabel()->isVisible());
    hud.update(QStringLiteral("olá mundo"));
    EXPECT_EQ(textLabel()->text(), QStringLiteral("olá mundo"));
    EXPECT_TRUE(textLabel()->isVisible());

    hud.hide();
    hud.update(QStringLiteral("depois de esconder"));
    EXPECT_FALSE(hud.panel()->isVisible());
    EXPECT_EQ(statusLabel()->text(), listening);
}

TEST_F(HUDPanelTest, HeightFollowsTheVisibleLinesAndALongTextKeepsItsEndBehindALeadingEllipsis)
{
    hud.show(listening, QString());
    const QRect empty = frame();
    hud.update(QStringLiteral("curto"));
    const QRect shortText = frame();
    hud.update(longText);
    const QRect longOne = frame();
    const QString shown = textLabel()->text();
    EXPECT_TRUE(shown.startsWith(QChar(0x2026)) && longText.endsWith(shown.mid(1))) << shown.toStdString();
    EXPECT_GT(shown.size(), 100) << "too much was cut";

    const int statusLine = statusLabel()->sizeHint().height();
    const int textLine = QFontMetrics(textLabel()->font()).lineSpacing();
    EXPECT_EQ(empty.height(), std::max(44, 10 + statusLine + 10));
    // Within a few pixels: a wrapped line may take a little more than the font's line spacing.
    EXPECT_NEAR(shortText.height(), 10 + statusLine + 4 + textLine + 10, 2);
    EXPECT_NEAR(longOne.height(), 10 + statusLine + 4 + 3 * textLine + 10, 4);
    const QRect visible = QGuiApplication::primaryScreen()->availableGeometry();
    for (const QRect& rect : {empty, shortText, longOne}) {
        EXPECT_EQ(rect.width(), 420);
        EXPECT_EQ(rect.y() + rect.height(), visible.y() + visible.height() - 80);
        EXPECT_EQ(rect.center().x(), visible.center().x());
    }

    hud.update(QStringLiteral("🎙️").repeated(400));
    EXPECT_FALSE(textLabel()->text().at(1).isLowSurrogate()) << "the cut split a character";
    hud.update(QString());
    EXPECT_EQ(frame(), empty) << "an emptied text must give the line back";
}

// Against the real X server.
class HUDPanelOnX11Test : public HUDPanelTest {
protected:
    void SetUp() override
    {
        if (!TestSupport::hasX11())
            GTEST_SKIP() << "needs the X server of scripts/with-harness.sh";
    }
};

TEST_F(HUDPanelOnX11Test, SitsDarkOverTheFrontWindowWithoutTakingItsFocusAndLetsClicksThroughToIt)
{
    ReceivingWindow receiver;
    ASSERT_TRUE(receiver.start()) << "the receiving window did not come up";
    // The light window fills the screen, so the panel's translucency and rounded corners show on it.
    const QString window = QString::number(receiver.windowId());
    QProcess::execute(QStringLiteral("xdotool"), {QStringLiteral("windowsize"), window, QStringLiteral("1920"),
        QStringLiteral("1080"), QStringLiteral("windowmove"), window, QStringLiteral("0"), QStringLiteral("0")});
    hud.show(listening, longText);
    TestSupport::spin(400ms);
    EXPECT_EQ(XTestKeyboard::focusedWindow(), receiver.windowId());
    EXPECT_EQ(QGuiApplication::applicationState(), Qt::ApplicationInactive);

    const QPoint middle = frame().center();
    QProcess::execute(QStringLiteral("xdotool"),
        {QStringLiteral("mousemove"), QString::number(middle.x()), QString::number(middle.y())});
    QProcess where;
    where.start(QStringLiteral("xdotool"), {QStringLiteral("getmouselocation"), QStringLiteral("--shell")});
    where.waitForFinished();
    const QByteArray location = where.readAllStandardOutput();
    EXPECT_TRUE(location.contains("WINDOW=" + window.toLatin1() + "\n"))
        << "the pointer does not reach the window beneath the HUD: " << location.toStdString();

    const QRect around = frame().adjusted(-40, -40, 40, 40);
    const QPixmap shot =
        QGuiApplication::primaryScreen()->grabWindow(0, around.x(), around.y(), around.width(), around.height());
    const QString path = Desktop::screenshotFolder() + QStringLiteral("/hud-long-text.png");
    ASSERT_TRUE(shot.save(path));
    std::printf("HUD screenshot: %s\n", qPrintable(path));
    const QImage image = shot.toImage();
    EXPECT_LT(image.pixelColor(image.width() / 2, 40 + 4).lightness(), 60);
    EXPECT_GT(image.pixelColor(10, 10).lightness(), 200);
}

}
