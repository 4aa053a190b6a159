#include "TestSupport.h"

#include <QGuiApplication>
#include <gtest/gtest.h>

// QGuiApplication on the offscreen platform: QImage codecs, timers, watchers and D-Bus all
// need an application object, and no test may depend on a display unless it starts one.
int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    testsupport::validateVulkan();
    QGuiApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
