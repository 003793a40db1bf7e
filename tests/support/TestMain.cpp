#include "TestSupport.h"

#include <QApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    TestSupport::isolateUserFolders();
    // Test programs live outside build/bin, where the model check would be looked for.
    qputenv("VOXARIA_MODEL_CHECK", VOXARIA_MODEL_CHECK_BINARY);
    // Outside the harness the widgets still work, drawn off screen.
    if (qEnvironmentVariableIsEmpty("DISPLAY"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
