// `cmake --install` into a prefix: the launcher and the icons land where desktops look for
// them, beside the program the launcher starts.

#include "TestSupport.h"

#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <QSettings>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace testsupport;

TEST(Install, PutsTheLauncherAndTheIconsWhereTheDesktopFindsThem)
{
    QTemporaryDir prefix;
    const auto r = runTool("cmake", {"--install", TURNELO_BINARY_DIR, "--prefix", prefix.path()});
    ASSERT_EQ(r.exitCode, 0) << r.err.constData() << r.out.constData();

    const QString launcher = prefix.filePath("share/applications/turnelo.desktop");
    QSettings entry(launcher, QSettings::IniFormat);
    entry.beginGroup("Desktop Entry");
    EXPECT_EQ(entry.value("Type").toString(), "Application");
    EXPECT_EQ(entry.value("Icon").toString(), "turnelo");
    // Found on the PATH, as a packaged program is.
    EXPECT_EQ(entry.value("Exec").toString(), "turnelo");
    EXPECT_TRUE(QFileInfo(prefix.filePath("bin/turnelo")).isExecutable());
    if (const QString validate = QStandardPaths::findExecutable("desktop-file-validate"); !validate.isEmpty()) {
        const auto check = runTool(validate, {launcher});
        EXPECT_EQ(check.exitCode, 0) << check.out.constData() << check.err.constData();
    }

    for (int side : {16, 22, 24, 32, 48, 64, 128, 256}) {
        const QImage icon(prefix.filePath(QString("share/icons/hicolor/%1x%1/apps/turnelo.png").arg(side)));
        EXPECT_EQ(icon.size(), QSize(side, side)) << side;
        EXPECT_EQ(qAlpha(icon.pixel(0, 0)), 0) << "the corners are transparent";
        EXPECT_GT(qAlpha(icon.pixel(side / 2, side / 2)), 200);
    }
}
