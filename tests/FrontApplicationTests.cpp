#include "AppRun.h"
#include "TestSupport.h"

#include "Platform/Linux/X11/X11FrontApplication.h"

#include <QDir>
#include <QStandardPaths>

#include <gtest/gtest.h>

namespace {

TEST(FrontApplication, NamesTheFocusedApplicationByItsBrazilianDesktopEntryElseByItsWindowClass)
{
    if (!TestSupport::hasX11())
        VOXARIA_SKIP("needs the X server of scripts/with-harness.sh");
    X11FrontApplication front;
    QDir applications(QStandardPaths::writableLocation(QStandardPaths::ApplicationsLocation));
    const auto install = [&](const QString& fileName, const QByteArray& contents) {
        ASSERT_TRUE(TestSupport::writeFile(applications.filePath(fileName), contents));
    };
    ReceivingWindow receiver;
    ASSERT_TRUE(receiver.start()) << "the receiving window did not come up";
    EXPECT_EQ(front.localizedName(), "receiver");

    // Matched by its file name alone, untranslated.
    install("Receiver.desktop", "[Desktop Entry]\nType=Application\nName=Receiving Window\nExec=receiver\n");
    EXPECT_EQ(front.localizedName(), "Receiving Window");

    // An entry naming the window class wins, in its pt_BR translation; an action's name is no name.
    install("org.example.Inbox.desktop",
        "[Desktop Entry]\nType=Application\nName=Inbox\nName[pt]=Caixa\nName[pt_BR]=Caixa de Entrada\n"
        "StartupWMClass=Receiver\nActions=new;\n\n[Desktop Action new]\nName=New window\nName[pt_BR]=Nova janela\n");
    EXPECT_EQ(front.localizedName(), "Caixa de Entrada");

    // Entries are read once, not before every paste: one rewritten in place is not read again.
    install("org.example.Inbox.desktop", "[Desktop Entry]\nName=Outro nome\nStartupWMClass=Receiver\n");
    EXPECT_EQ(front.localizedName(), "Caixa de Entrada");
}

}
