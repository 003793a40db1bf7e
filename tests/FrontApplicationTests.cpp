#include "AppRun.h"
#include "DesktopApps.h"
#include "TestSupport.h"
#include "XTestKeyboard.h"

#include "Platform/Linux/X11FrontApplication.h"
#include "Platform/Linux/XTestKeyPoster.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <gtest/gtest.h>

namespace {

using WindowClass = FrontApplication::WindowClass;

class FrontApplicationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!TestSupport::hasX11())
            GTEST_SKIP() << "needs the X server of scripts/with-harness.sh";
    }

    X11FrontApplication front;
};

TEST_F(FrontApplicationTest, NamesTheFocusedApplicationByItsBrazilianDesktopEntryElseByItsWindowClass)
{
    QDir applications(QStandardPaths::writableLocation(QStandardPaths::ApplicationsLocation));
    applications.removeRecursively();
    applications.mkpath(QStringLiteral("."));
    const auto install = [&](const QString& fileName, const QByteArray& contents) {
        QFile file(applications.filePath(fileName));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents);
    };
    ReceivingWindow receiver;
    ASSERT_TRUE(receiver.start()) << "the receiving window did not come up";
    EXPECT_EQ(front.localizedName(), QStringLiteral("receiver"));

    // Matched by its file name alone, untranslated.
    install(QStringLiteral("Receiver.desktop"), "[Desktop Entry]\nType=Application\nName=Receiving Window\nExec=receiver\n");
    EXPECT_EQ(front.localizedName(), QStringLiteral("Receiving Window"));

    // An entry naming the window class wins, in its pt_BR translation; an action's name is no name.
    install(QStringLiteral("org.example.Inbox.desktop"),
        "[Desktop Entry]\nType=Application\nName=Inbox\nName[pt]=Caixa\nName[pt_BR]=Caixa de Entrada\n"
        "StartupWMClass=Receiver\nActions=new;\n\n[Desktop Action new]\nName=New window\nName[pt_BR]=Nova janela\n");
    EXPECT_EQ(front.localizedName(), QStringLiteral("Caixa de Entrada"));
}

TEST_F(FrontApplicationTest, FollowsTheFocusFromWindowToWindowAndRecognisesTerminals)
{
    ReceivingWindow receiver;
    DesktopApps::Terminal terminal;
    ASSERT_TRUE(receiver.start() && terminal.windowId() != 0) << "the receiving window or xterm did not come up";

    XTestKeyboard::focus(terminal.windowId());
    const std::optional<WindowClass> terminalClass = front.windowClass();
    ASSERT_TRUE(terminalClass);
    EXPECT_EQ(terminalClass->className, QStringLiteral("XTerm"));
    EXPECT_TRUE(XTestKeyPoster::isTerminal(*terminalClass));

    XTestKeyboard::focus(receiver.windowId());
    const WindowClass receiverClass{QStringLiteral("receiver"), QStringLiteral("receiver")};
    EXPECT_EQ(front.windowClass(), receiverClass);
    EXPECT_FALSE(XTestKeyPoster::isTerminal(receiverClass));
    EXPECT_TRUE(XTestKeyPoster::isTerminal({QStringLiteral("gnome-terminal-server"), QStringLiteral("Gnome-terminal")}));
    EXPECT_TRUE(XTestKeyPoster::isTerminal({QStringLiteral("Alacritty"), QStringLiteral("Alacritty")}));
    EXPECT_FALSE(XTestKeyPoster::isTerminal({QStringLiteral("gedit"), QStringLiteral("Gedit")}));
}

}
