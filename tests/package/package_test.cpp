// The Debian package CPack makes from this build tree, unpacked: what lands where, lintian's
// verdict, and the programs run from there, the room up on a desktop from the package alone, offline.

#include "RoomProcess.h"  // greyLevels
#include "TestSupport.h"
#include "XServer.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QStandardPaths>
#include <gtest/gtest.h>

using namespace testsupport;

TEST(Package, HoldsTheProgramsTheirPagesTheLauncherTheIconsAndTheRoom)
{
    QTemporaryDir work;
    const auto made = runTool(CPACK_COMMAND, {"--config", TURNELO_BINARY_DIR "/CPackConfig.cmake", "-B", work.path()});
    ASSERT_EQ(made.exitCode, 0) << made.err.constData() << made.out.constData();
    const QStringList debs = QDir(work.path()).entryList({"*.deb"});
    ASSERT_EQ(debs.size(), 1) << qPrintable(debs.join(' '));
    const QString deb = work.filePath(debs.first());
    const QString version = runTool("dpkg-deb", {"--field", deb, "Version"}).out.trimmed();
    // Worked out from the binaries: the Vulkan loader and Qt, which nobody listed by hand.
    const QString depends = runTool("dpkg-deb", {"--field", deb, "Depends"}).out;
    EXPECT_TRUE(depends.contains("libvulkan1") && depends.contains("libqt6gui6")) << qPrintable(depends);

    if (const QString lintian = QStandardPaths::findExecutable("lintian"); !lintian.isEmpty()) {
        const auto check = runTool(lintian, {deb});  // fails on errors, its "E:" lines
        EXPECT_EQ(check.exitCode, 0) << check.out.constData() << check.err.constData();
    }

    const QDir root(work.filePath("root"));
    ASSERT_EQ(runTool("dpkg-deb", {"-x", deb, root.path()}).exitCode, 0);
    const QStringList programs{"turnelo",         "turnelo-defaults", "turnelo-gen-scene",
                               "turnelo-publish", "turnelo-scene",    "turnelo-sync"};
    EXPECT_EQ(QDir(root.filePath("usr/bin")).entryList(QDir::Files, QDir::Name), programs) << "test helpers stay out";
    for (const QString &program : programs) {
        SCOPED_TRACE(program.toStdString());
        EXPECT_TRUE(readFile(root.filePath("usr/share/man/man1/" + program + ".1.gz")).startsWith("\x1f\x8b"));
        const auto answer = runTool(root.filePath("usr/bin/" + program), {"--version"});
        EXPECT_EQ(answer.exitCode, 0) << answer.err.constData();
        EXPECT_EQ(QString::fromUtf8(answer.out), program + ' ' + version + '\n');
    }
    EXPECT_TRUE(readFile(root.filePath("usr/share/doc/turnelo/copyright"))
                    .startsWith("Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/"));

    const QString launcher = root.filePath("usr/share/applications/turnelo.desktop");
    QSettings entry(launcher, QSettings::IniFormat);
    entry.beginGroup("Desktop Entry");
    EXPECT_EQ(entry.value("Icon").toString(), "turnelo");
    // The program where the package puts it, by the path KWin matches a running program to.
    EXPECT_EQ(entry.value("Exec").toString(), "/usr/bin/turnelo");
    EXPECT_EQ(entry.value("X-KDE-Wayland-Interfaces").toString(), "org_kde_plasma_window_management");
    if (const QString validate = QStandardPaths::findExecutable("desktop-file-validate"); !validate.isEmpty()) {
        const auto check = runTool(validate, {launcher});
        EXPECT_EQ(check.exitCode, 0) << check.out.constData() << check.err.constData();
    }
    for (int side : {16, 22, 24, 32, 48, 64, 128, 256}) {
        const QImage icon(root.filePath(QString("usr/share/icons/hicolor/%1x%1/apps/turnelo.png").arg(side)));
        EXPECT_EQ(icon.size(), QSize(side, side)) << side;
        EXPECT_GT(qAlpha(icon.pixel(side / 2, side / 2)), 200) << side;
    }

    // The room whole, where the program looks under /usr/share, and whole by the packaged tool.
    const QString room = root.filePath("usr/share/turnelo/scenes/room");
    EXPECT_TRUE(filesUnder(room) == filesUnder(TURNELO_SOURCE_DIR "/scenes/room"))
        << "the room installed is not the one shipped";
    const auto validated = runTool(root.filePath("usr/bin/turnelo-scene"), {"validate", room});
    ASSERT_EQ(validated.exitCode, 0) << validated.err.constData();
    const QJsonObject summary = QJsonDocument::fromJson(validated.out).object();
    EXPECT_EQ(summary.value("framings").toObject().keys(), QStringList({"close", "mid", "top", "wide"}))
        << validated.out.constData();
    EXPECT_EQ(summary.value("missing"), QJsonArray{}) << validated.out.constData();

    // A new user's first start: a fresh home, the package's data folder, no service answering.
    if (!XServer::installed("openbox") || lavapipeIcd().isEmpty())
        GTEST_SKIP() << "openbox or lavapipe missing: the packaged program is not started";
    XServer x(QStringLiteral("1280x720x24"));
    QString why;
    ASSERT_TRUE(x.start(why) && x.startManager("openbox", {"--sm-disable"}, why)) << why.toStdString();
    QProcessEnvironment env = x.environment();
    env.remove("TURNELO_SCENES_DIR");
    env.remove("QT_QPA_PLATFORM");
    env.insert("XDG_DATA_DIRS", root.filePath("usr/share"));
    env.insert("VK_ICD_FILENAMES", lavapipeIcd());
    const auto write = [&](const QStringList &args) {
        QProcess tool;
        tool.setProcessEnvironment(env);
        tool.start(root.filePath("usr/bin/turnelo-defaults"), QStringList{"write"} + args);
        ASSERT_TRUE(tool.waitForFinished(30000) && tool.exitCode() == 0) << tool.readAllStandardError().toStdString();
    };
    write({"onboardingDone", "-bool", "true"});  // the welcome would stand in front of the room
    write({"contentServiceURL", "-string", "http://127.0.0.1:9/"});
    write({"weatherServiceURL", "-string", "http://127.0.0.1:9/"});
    QProcess app;
    app.setProcessEnvironment(env);
    app.setProcessChannelMode(QProcess::MergedChannels);
    app.start(root.filePath("usr/bin/turnelo"), {});
    ASSERT_TRUE(app.waitForStarted(10000));
    const auto log = [&] { return QString::fromUtf8(readFile(x.stateHome() + "/Turnelo Dev.log")); };
    const bool ready = waitUntil([&] { return log().contains("Cena pronta") || app.state() != QProcess::Running; },
                                 std::chrono::seconds(240));
    const QImage shot = x.screenshot();
    app.terminate();
    if (!app.waitForFinished(10000)) app.kill();
    ASSERT_TRUE(ready && log().contains("Cena pronta")) << log().toStdString() << app.readAll().toStdString();
    EXPECT_TRUE(log().contains("sala: " + root.filePath("usr/share/turnelo/scenes/room") + " (embutida)"))
        << log().toStdString();
    // Offline: the catalog's failure is logged and retried, and nothing else goes wrong.
    EXPECT_TRUE(log().contains("Cenas: nova tentativa em 120 s")) << log().toStdString();
    EXPECT_FALSE(log().contains("Cena indisponível")) << log().toStdString();
    // The room fills the desktop: not one flat colour, not black.
    ASSERT_FALSE(shot.isNull());
    shot.save(QStringLiteral(TURNELO_BINARY_DIR "/packaged-room.png"));
    const auto [mean, spread] = greyLevels(shot, shot.rect());
    EXPECT_GT(mean, 8) << "a black desktop";
    EXPECT_GT(spread, 6) << "one flat colour";
}
