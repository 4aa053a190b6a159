// The real program under a real headless sway with the software Vulkan device: the room replaces
// the desktop's background, a fullscreen window pauses it and closing it resumes it, a new output
// gets a room of its own and a disabled one takes its surface away without harm. Under a
// compositor without layer surfaces there is no room and no window, and the log says why.

#include "AppLog.h"
#include "PrivateBus.h"
#include "SwayServer.h"
#include "WestonServer.h"
#include "TestSupport.h"

#include <QFile>
#include <QRegularExpression>
#include <gtest/gtest.h>
#include <iostream>

using namespace testsupport;

namespace {

QString binary(const QString &name) { return QStringLiteral(TURNELO_BINARY_DIR "/") + name; }

// Share of pixels, every fourth in each direction, that differ from `before` by more than a trace.
double changedShare(const QImage &before, const QImage &after)
{
    if (before.size() != after.size() || before.isNull()) return 0;
    int changed = 0, n = 0;
    for (int y = 0; y < after.height(); y += 4)
        for (int x = 0; x < after.width(); x += 4, ++n) {
            const QRgb a = before.pixel(x, y), b = after.pixel(x, y);
            changed +=
                std::abs(qRed(a) - qRed(b)) + std::abs(qGreen(a) - qGreen(b)) + std::abs(qBlue(a) - qBlue(b)) > 12;
        }
    return n ? double(changed) / n : 0;
}

// Standard deviation of the grey level: a flat background colour has none, the room plenty.
double spread(const QImage &img)
{
    double sum = 0, sum2 = 0;
    int n = 0;
    for (int y = 0; y < img.height(); y += 4)
        for (int x = 0; x < img.width(); x += 4, ++n) {
            const double v = qGray(img.pixel(x, y));
            sum += v;
            sum2 += v * v;
        }
    if (!n) return 0;
    const double mean = sum / n;
    return std::sqrt(std::max(0.0, sum2 / n - mean * mean));
}

class WaylandRoom : public ::testing::Test {
protected:
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = sway.environment();
        const QProcessEnvironment busEnv = bus.env();
        for (const char *key : {"DBUS_SESSION_BUS_ADDRESS", "DBUS_SYSTEM_BUS_ADDRESS"})
            env.insert(key, busEnv.value(key));
        env.insert("TURNELO_SCENES_DIR", scene);
        env.insert("VK_ICD_FILENAMES", lavapipeIcd());
        return env;
    }
    void defaults(const QStringList &args)
    {
        QProcess tool;
        tool.setProcessEnvironment(environment());
        tool.start(binary("tools/turnelo-defaults"), args);
        ASSERT_TRUE(tool.waitForFinished(30000) && tool.exitCode() == 0) << tool.readAllStandardError().toStdString();
    }
    QString log() const { return appLog.text(); }
    qsizetype waitForLine(const QString &text, qsizetype from, int seconds = 60)
    {
        return appLog.waitForLine(text, from, seconds);
    }
    double fpsAfter(qsizetype from) { return appLog.fpsAfter(from); }
    void TearDown() override
    {
        if (HasFailure() || qEnvironmentVariableIsSet("SHOWLOG"))
            std::cerr << "log:\n" << log().toStdString() << "\noutput:\n" << app.readAll().toStdString();
        for (QProcess *p : {&app, &terminal})
            if (p->state() == QProcess::Running) {
                p->terminate();
                if (!p->waitForFinished(10000)) p->kill();
            }
    }

    SwayServer sway;
    PrivateBus bus;
    QTemporaryDir dir;
    QString scene;
    QProcess app, terminal;
    AppLog appLog{sway.stateHome(), app};
};

TEST_F(WaylandRoom, BackgroundOfEveryOutputPausedByAFullscreenWindow)
{
    QString why;
    if (!SwayServer::installed("foot")) GTEST_SKIP() << "foot is not installed";
    // No swaybg: sway 1.7 stacks a later background surface under an earlier one, so a wallpaper
    // program would hide the room; what shows without one is sway's own background colour.
    ASSERT_TRUE(sway.start("swaybg_command -\noutput * resolution 1280x720\n", why)) << why.toStdString();
    ASSERT_TRUE(bus.ok());
    scene = dir.filePath("scene");
    QProcess gen;
    gen.start(binary("tools/turnelo-gen-scene"),
              {"--out", scene, "--width", "640", "--height", "360", "--framings", "wide"});
    ASSERT_TRUE(gen.waitForFinished(300000) && gen.exitCode() == 0) << gen.readAllStandardError().toStdString();
    const QImage bare = sway.screenshot("HEADLESS-1");
    ASSERT_FALSE(bare.isNull());

    defaults({"write", "onboardingDone", "-bool", "true"});
    defaults({"write", "perfLogInterval", "-float", "1"});
    defaults({"write", "screens", "-string", "all"});
    app.setProcessEnvironment(environment());
    app.setProcessChannelMode(QProcess::MergedChannels);
    app.start(binary("turnelo"), {"--music-setup-done"});
    ASSERT_TRUE(app.waitForStarted(10000));
    qsizetype at = waitForLine("Cena pronta", 0, 180);
    ASSERT_FALSE(HasFailure());

    // The room covers the background, and it is a picture, not a flat colour.
    QImage shot;
    waitUntil(
        [&] {
            shot = sway.screenshot("HEADLESS-1");
            return changedShare(bare, shot) > 0.9 && spread(shot) > 6;
        },
        std::chrono::seconds(60));
    shot.save(QStringLiteral(TURNELO_BINARY_DIR "/wayland-room.png"));
    EXPECT_GT(changedShare(bare, shot), 0.9) << "the background shows through";
    EXPECT_GT(spread(shot), 6) << "the output is one flat colour";
    static const QRegularExpression moving(QStringLiteral("Perf \\d+s: [1-9][0-9.]* fps"));
    EXPECT_TRUE(waitUntil([&] { return moving.match(log(), at).hasMatch(); }, std::chrono::seconds(90)))
        << "the room does not animate";

    // A fullscreen window pauses the frames; closed, they resume.
    terminal.setProcessEnvironment(environment());
    terminal.setStandardOutputFile(QProcess::nullDevice());
    terminal.setStandardErrorFile(QProcess::nullDevice());
    terminal.start("foot", {"--app-id", "blocker", "sleep", "600"});
    ASSERT_TRUE(waitUntil(
        [&] {
            return sway.msg({"-t", "get_tree"}).contains("\"blocker\"");
        },
        std::chrono::seconds(30)))
        << "foot did not open a window";
    ASSERT_FALSE(sway.msg({"[app_id=\"blocker\"]", "fullscreen", "enable"}).isEmpty());
    at = waitForLine("Cena: área animada coberta por janelas → pausa", at);
    const qsizetype covered = waitForLine("Perf", waitForLine("Perf", at));  // a whole interval after
    EXPECT_EQ(fpsAfter(covered), 0.0) << "frames while covered";
    terminal.terminate();
    terminal.waitForFinished(10000);
    at = waitForLine("Cena: área animada à vista → renderiza", at);

    // A second output gets a room of its own; disabled, it leaves the first one drawing.
    ASSERT_FALSE(sway.msg({"create_output"}).isEmpty());
    QImage second;
    EXPECT_TRUE(waitUntil(
        [&] {
            second = sway.screenshot("HEADLESS-2");
            return changedShare(bare, second) > 0.9 && spread(second) > 6;
        },
        std::chrono::seconds(90)))
        << "no room on the second output";
    ASSERT_FALSE(sway.msg({"output", "HEADLESS-2", "disable"}).isEmpty());
    const qsizetype afterRemoval = log().size();
    // The software device draws a second output's first base slowly: any later line will do.
    EXPECT_TRUE(waitUntil([&] { return moving.match(log(), afterRemoval).hasMatch(); }, std::chrono::seconds(30)))
        << "the first output stopped drawing";
    EXPECT_EQ(app.state(), QProcess::Running) << "the program did not survive the output's removal";
    EXPECT_GT(changedShare(bare, sway.screenshot("HEADLESS-1")), 0.9) << "the first output lost its room";
}

TEST(WaylandWithoutLayerShell, NoWindowAndTheLogSaysWhy)
{
    WestonServer weston;
    PrivateBus bus;
    QString why;
    if (!weston.start(why)) GTEST_SKIP() << why.toStdString();
    ASSERT_TRUE(bus.ok());
    QProcessEnvironment env = weston.environment();
    const QProcessEnvironment busEnv = bus.env();
    for (const char *key : {"DBUS_SESSION_BUS_ADDRESS", "DBUS_SYSTEM_BUS_ADDRESS"}) env.insert(key, busEnv.value(key));
    env.insert("VK_ICD_FILENAMES", lavapipeIcd());
    // Every request the program makes to the compositor, on stderr.
    env.insert("WAYLAND_DEBUG", "client");
    QProcess tool;
    tool.setProcessEnvironment(env);
    tool.start(binary("tools/turnelo-defaults"), {"write", "onboardingDone", "-bool", "true"});
    ASSERT_TRUE(tool.waitForFinished(30000) && tool.exitCode() == 0);

    QProcess app;
    app.setProcessEnvironment(env);
    app.start(binary("turnelo"), {"--music-setup-done"});
    ASSERT_TRUE(app.waitForStarted(10000));
    const auto log = [&] { return QString::fromUtf8(readFile(weston.stateHome() + "/Turnelo Dev.log")); };
    EXPECT_TRUE(waitUntil([&] { return log().contains("Sala indisponível: ") || app.state() != QProcess::Running; },
                          std::chrono::seconds(30)))
        << log().toStdString();
    EXPECT_TRUE(log().contains("não deixa programas desenharem o fundo")) << log().toStdString();
    spin(std::chrono::seconds(2));  // time enough to map a window, had it meant to
    EXPECT_EQ(app.state(), QProcess::Running);
    app.terminate();
    app.waitForFinished(10000);
    const QByteArray requests = app.readAllStandardError();
    // The probe's connection and Qt's own (which would make any window) are both seen.
    EXPECT_GE(requests.count("wl_display@1.get_registry("), 2) << "the program's Wayland requests were not seen";
    EXPECT_FALSE(requests.contains("get_toplevel")) << "a window was made";
    EXPECT_FALSE(requests.contains("get_layer_surface"));
}

}  // namespace
