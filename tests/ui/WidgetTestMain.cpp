// The windows' tests as a person sees them: a private X server for the process, Qt on xcb, private
// HOME and XDG folders, and a private bus standing in for the session and the system bus.
#include "PrivateBus.h"
#include "XServer.h"

#include <QApplication>
#include <cstdio>
#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    if (::testing::GTEST_FLAG(list_tests)) {
        // Test discovery at build time needs no display.
        qputenv("QT_QPA_PLATFORM", "offscreen");
        QApplication app(argc, argv);
        return RUN_ALL_TESTS();
    }
    XServer x(QStringLiteral("1024x768x24"));
    QString why;
    if (!x.start(why)) {
        std::fprintf(stderr, "no X server: %s\n", qPrintable(why));
        return 1;
    }
    const QProcessEnvironment env = x.environment();
    for (const char *name : {"DISPLAY", "HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME"})
        qputenv(name, env.value(QString::fromLatin1(name)).toUtf8());
    qputenv("QT_QPA_PLATFORM", "xcb");
    qunsetenv("TURNELO_SCENES_DIR");
    if (const QString icd = testsupport::lavapipeIcd(); !icd.isEmpty()) qputenv("VK_ICD_FILENAMES", icd.toUtf8());
    testsupport::validateVulkan();
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    testsupport::PrivateBus bus;
    if (!bus.ok()) {
        std::fprintf(stderr, "no private dbus-daemon\n");
        return 1;
    }
    for (const char *name : {"DBUS_SESSION_BUS_ADDRESS", "DBUS_SYSTEM_BUS_ADDRESS"})
        qputenv(name, bus.env().value(QString::fromLatin1(name)).toUtf8());
    return RUN_ALL_TESTS();
}
