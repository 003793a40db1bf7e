#include "DesktopApps.h"
#include "HUDPanel.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFontMetrics>
#include <QGuiApplication>
#include <QLabel>
#include <QPixmap>
#include <QProcess>
#include <QScreen>
#include <QWidget>

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace {

const QString listening = QStringLiteral("🎙️ Ouvindo… (solte a tecla para inserir)");
const QString longText = QStringLiteral(
    "No princípio era o silêncio, e depois vieram as palavras, uma depois da outra, sem pressa, enquanto a "
    "tecla continuava apertada e o microfone ouvia tudo com atenção; a frase cresceu, passou de uma linha, "
    "passou de duas, passou de três, e ainda assim continuou a crescer até que só o seu final coubesse no "
    "painel, que mostra sempre as últimas palavras ditas: fim da frase.");

QLabel* label(const HUDPanel& hud, const char* name)
{
    return hud.panel()->findChild<QLabel*>(QLatin1String(name));
}

QRect visibleFrameOfPrimary()
{
    return QGuiApplication::primaryScreen()->availableGeometry();
}

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

TEST(HUDPanelPlacement, TallerPanelGrowsUpwardKeepingItsBottomEdge)
{
    const HUDPanel::ScreenArea screen{QRect(0, 0, 800, 600), QRect(0, 0, 800, 560)};
    const QRect low = *HUDPanel::placement({screen}, screen, QPoint(1, 1), 44);
    const QRect tall = *HUDPanel::placement({screen}, screen, QPoint(1, 1), 120);
    EXPECT_EQ(low.bottom(), tall.bottom());
    EXPECT_EQ(low.y() + low.height(), 560 - 80);
    EXPECT_EQ(tall.width(), 420);
}

class HUDPanelTest : public ::testing::Test {
protected:
    HUDPanel hud;
    QRect frame() const { return hud.panel()->geometry(); }
};

TEST_F(HUDPanelTest, IsHiddenUntilShownAndUpdateNeverShowsIt)
{
    EXPECT_FALSE(hud.panel()->isVisible());
    hud.update(QStringLiteral("parcial"));
    EXPECT_FALSE(hud.panel()->isVisible());

    hud.show(listening, QString());
    EXPECT_TRUE(hud.panel()->isVisible());
    EXPECT_EQ(label(hud, "statusLabel")->text(), listening);
    EXPECT_EQ(hud.panel()->accessibleName(), listening);
    EXPECT_FALSE(label(hud, "textLabel")->isVisible());

    hud.update(QStringLiteral("olá mundo"));
    EXPECT_TRUE(label(hud, "textLabel")->isVisible());
    EXPECT_EQ(label(hud, "textLabel")->text(), QStringLiteral("olá mundo"));

    hud.hide();
    EXPECT_FALSE(hud.panel()->isVisible());
    EXPECT_EQ(label(hud, "statusLabel")->text(), listening);
    hud.update(QStringLiteral("depois de esconder"));
    EXPECT_FALSE(hud.panel()->isVisible());
    EXPECT_EQ(label(hud, "textLabel")->text(), QStringLiteral("depois de esconder"));
}

TEST_F(HUDPanelTest, HeightFollowsTheVisibleLinesAndNeverDropsBelowTheMinimum)
{
    hud.show(listening, QString());
    const QRect empty = frame();
    hud.update(QStringLiteral("curto"));
    const QRect shortText = frame();
    hud.update(longText);
    const QRect longOne = frame();

    const int statusLine = label(hud, "statusLabel")->sizeHint().height();
    const int textLine = QFontMetrics(label(hud, "textLabel")->font()).lineSpacing();
    EXPECT_EQ(empty.height(), std::max(44, 10 + statusLine + 10));
    // Within a few pixels: a wrapped line may take a little more than the font's line spacing.
    EXPECT_NEAR(shortText.height(), 10 + statusLine + 4 + textLine + 10, 2);
    EXPECT_NEAR(longOne.height(), 10 + statusLine + 4 + 3 * textLine + 10, 4);
    for (const QRect& rect : {empty, shortText, longOne}) {
        EXPECT_EQ(rect.width(), 420);
        EXPECT_EQ(rect.y() + rect.height(), visibleFrameOfPrimary().y() + visibleFrameOfPrimary().height() - 80);
        EXPECT_EQ(rect.center().x(), visibleFrameOfPrimary().center().x());
    }

    hud.update(QString());
    EXPECT_EQ(frame(), empty) << "an emptied text must give the line back";
}

TEST_F(HUDPanelTest, LongTextKeepsItsEndBehindALeadingEllipsis)
{
    hud.show(listening, longText);
    const QString shown = label(hud, "textLabel")->text();
    ASSERT_TRUE(shown.startsWith(QChar(0x2026))) << shown.toStdString();
    EXPECT_TRUE(longText.endsWith(shown.mid(1)));
    EXPECT_TRUE(shown.endsWith(QStringLiteral("fim da frase.")));
    EXPECT_GT(shown.size(), 100) << "too much was cut";

    const QString emoji = QStringLiteral("🎙️").repeated(400);
    hud.update(emoji);
    const QString cut = label(hud, "textLabel")->text();
    EXPECT_FALSE(cut.at(1).isLowSurrogate()) << "the cut split a character";
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

TEST_F(HUDPanelOnX11Test, ShowingLeavesTheKeyboardFocusWithTheFrontApplicationAndLetsClicksThrough)
{
    DesktopApps::Receiver receiver;
    ASSERT_TRUE(receiver.isReady() && receiver.focus());
    hud.show(listening, QStringLiteral("texto parcial"));
    TestSupport::spin(300ms);
    EXPECT_EQ(DesktopApps::focusedWindow(), receiver.windowId());
    EXPECT_EQ(QGuiApplication::focusWindow(), nullptr);
    EXPECT_EQ(QGuiApplication::applicationState(), Qt::ApplicationInactive);

    const QPoint middle = frame().center();
    QProcess::execute(QStringLiteral("xdotool"),
        {QStringLiteral("mousemove"), QString::number(middle.x()), QString::number(middle.y())});
    QProcess where;
    where.start(QStringLiteral("xdotool"), {QStringLiteral("getmouselocation"), QStringLiteral("--shell")});
    where.waitForFinished();
    const QByteArray location = where.readAllStandardOutput();
    EXPECT_FALSE(location.contains("WINDOW=" + QByteArray::number(qulonglong(hud.panel()->winId())) + "\n"))
        << "the pointer hit the HUD: " << location.toStdString();
}

TEST_F(HUDPanelOnX11Test, ScreenshotOfTheListeningMessageWithATruncatedText)
{
    DesktopApps::Receiver backdrop;
    ASSERT_TRUE(backdrop.isReady());
    hud.show(listening, longText);
    const QRect around = frame().adjusted(-40, -40, 40, 40);
    // Something light behind the panel shows its translucency and its rounded corners.
    QProcess::execute(QStringLiteral("xdotool"),
        {QStringLiteral("windowsize"), QString::number(backdrop.windowId()), QStringLiteral("1920"), QStringLiteral("1080"),
            QStringLiteral("windowmove"), QString::number(backdrop.windowId()), QStringLiteral("0"), QStringLiteral("0")});
    hud.show(listening, longText);
    TestSupport::spin(400ms);

    const QPixmap shot = QGuiApplication::primaryScreen()->grabWindow(0, around.x(), around.y(), around.width(),
        around.height());
    QString folder = qEnvironmentVariable("VOXARIA_SCREENSHOT_DIR");
    if (folder.isEmpty())
        folder = QCoreApplication::applicationDirPath();
    QDir().mkpath(folder);
    const QString path = folder + QStringLiteral("/hud-listening.png");
    ASSERT_TRUE(shot.save(path));
    std::printf("HUD screenshot: %s\n", qPrintable(path));

    // The panel is darker than the light window behind it, and its status is drawn in white.
    const QImage image = shot.toImage();
    const QColor inside = image.pixelColor(image.width() / 2, 40 + 4);
    const QColor outside = image.pixelColor(10, 10);
    EXPECT_LT(inside.lightness(), 60);
    EXPECT_GT(outside.lightness(), 200);
}

}
