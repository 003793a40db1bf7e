#include "DesktopApps.h"
#include "TestSupport.h"

#include "Platform/Linux/X11FrontApplication.h"
#include "Platform/Linux/XTestKeyPoster.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <gtest/gtest.h>

namespace {

using WindowClass = FrontApplication::WindowClass;

const WindowClass receiverClass{QStringLiteral("receiver"), QStringLiteral("receiver")};

class FrontApplicationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!TestSupport::hasX11())
            GTEST_SKIP() << "needs the X server of scripts/with-harness.sh";
        QDir(applicationsFolder()).removeRecursively();
        QDir().mkpath(applicationsFolder());
    }

    void TearDown() override { QDir(applicationsFolder()).removeRecursively(); }

    static QString applicationsFolder()
    {
        return QStandardPaths::writableLocation(QStandardPaths::ApplicationsLocation);
    }

    static void installDesktopEntry(const QString& fileName, const QByteArray& contents)
    {
        QFile file(applicationsFolder() + QLatin1Char('/') + fileName);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents);
    }

    X11FrontApplication front;
};

TEST_F(FrontApplicationTest, NamesTheFocusedWindowByItsClassWhenNoDesktopEntryKnowsIt)
{
    DesktopApps::Receiver receiver;
    ASSERT_TRUE(receiver.isReady() && receiver.focus());
    EXPECT_EQ(front.windowClass(), receiverClass);
    EXPECT_EQ(front.localizedName(), QStringLiteral("receiver"));
}

TEST_F(FrontApplicationTest, PrefersTheBrazilianNameOfTheMatchingDesktopEntry)
{
    DesktopApps::Receiver receiver;
    ASSERT_TRUE(receiver.isReady() && receiver.focus());

    // Matched by its file name alone, untranslated.
    installDesktopEntry(QStringLiteral("Receiver.desktop"),
        "[Desktop Entry]\nType=Application\nName=Receiving Window\nExec=receiver\n");
    EXPECT_EQ(front.localizedName(), QStringLiteral("Receiving Window"));

    // An entry naming the window class wins, in its pt_BR translation; an action's name is no name.
    installDesktopEntry(QStringLiteral("org.example.Inbox.desktop"),
        "[Desktop Entry]\nType=Application\nName=Inbox\nName[pt]=Caixa\nName[pt_BR]=Caixa de Entrada\n"
        "StartupWMClass=Receiver\nActions=new;\n\n[Desktop Action new]\nName=New window\nName[pt_BR]=Nova janela\n");
    EXPECT_EQ(front.localizedName(), QStringLiteral("Caixa de Entrada"));
}

TEST_F(FrontApplicationTest, FollowsTheFocusFromWindowToWindowAndRecognisesTerminals)
{
    DesktopApps::Receiver receiver;
    DesktopApps::Terminal terminal;
    ASSERT_TRUE(receiver.isReady() && terminal.isReady());

    ASSERT_TRUE(terminal.focus());
    const std::optional<WindowClass> terminalClass = front.windowClass();
    ASSERT_TRUE(terminalClass);
    EXPECT_EQ(terminalClass->className, QStringLiteral("XTerm"));
    EXPECT_TRUE(XTestKeyPoster::isTerminal(*terminalClass));

    ASSERT_TRUE(receiver.focus());
    EXPECT_EQ(front.windowClass(), receiverClass);
    EXPECT_FALSE(XTestKeyPoster::isTerminal(receiverClass));
    EXPECT_TRUE(XTestKeyPoster::isTerminal({QStringLiteral("gnome-terminal-server"), QStringLiteral("Gnome-terminal")}));
    EXPECT_TRUE(XTestKeyPoster::isTerminal({QStringLiteral("Alacritty"), QStringLiteral("Alacritty")}));
    EXPECT_FALSE(XTestKeyPoster::isTerminal({QStringLiteral("gedit"), QStringLiteral("Gedit")}));
}

}
