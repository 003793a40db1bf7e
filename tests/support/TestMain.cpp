#include "TestSupport.h"

#include <QApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    TestSupport::isolateUserFolders();
    // Outside the harness the widgets still work, drawn off screen.
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
