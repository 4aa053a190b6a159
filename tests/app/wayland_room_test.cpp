// The real program under a real headless sway with the software Vulkan device: the room replaces
// the desktop's background, a fullscreen window pauses it and closing it resumes it, a new output
// gets a room of its own and a disabled one takes its surface away without harm. Under a
// compositor without layer surfaces there is no room and no window, and the log says why.

#include "PrivateBus.h"
#include "RoomProcess.h"
#include "SwayServer.h"
#include "TestSupport.h"
#include "WestonServer.h"

#include <gtest/gtest.h>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

// Whether `shot` shows the room: a picture, not a flat colour, over nearly all of the `bare`
// background (more than a trace changed at nine pixels in ten, every fourth in each direction).
bool showsRoom(const QImage &bare, const QImage &shot)
{
    if (bare.size() != shot.size() || bare.isNull() || greyLevels(shot, shot.rect()).second <= 6) return false;
    int changed = 0, n = 0;
    for (int y = 0; y < shot.height(); y += 4)
        for (int x = 0; x < shot.width(); x += 4, ++n) {
            const QRgb a = bare.pixel(x, y), b = shot.pixel(x, y);
            changed +=
                std::abs(qRed(a) - qRed(b)) + std::abs(qGreen(a) - qGreen(b)) + std::abs(qBlue(a) - qBlue(b)) > 12;
        }
    return changed > 0.9 * n;
}

TEST(WaylandRoom, BackgroundOfEveryOutputPausedByAFullscreenWindow)
{
    if (!SwayServer::installed("foot")) GTEST_SKIP() << "foot is not installed";
    SwayServer sway;
    QString why;
    // No swaybg: sway 1.7 stacks a later background surface under an earlier one, so a wallpaper
    // program would hide the room; what shows without one is sway's own background colour.
    ASSERT_TRUE(sway.start("swaybg_command -\noutput * resolution 1280x720\n", why)) << why.toStdString();
    PrivateBus bus;
    ASSERT_TRUE(bus.ok());
    QTemporaryDir dir;
    RoomProcess room(sway.environment(), bus.address);
    ASSERT_TRUE(room.makeScene(dir.filePath("scene")));
    const QImage bare = sway.screenshot("HEADLESS-1");
    ASSERT_FALSE(bare.isNull());
    room.set("perfLogInterval", "-float", "1");
    room.set("screens", "-string", "all");
    ASSERT_TRUE(room.start());
    qsizetype at = room.waitForLine("Cena pronta", 0, 180);
    ASSERT_FALSE(::testing::Test::HasFailure());

    QImage shot;
    EXPECT_TRUE(waitUntil([&] { return showsRoom(bare, shot = sway.screenshot("HEADLESS-1")); }, 60s))
        << "the background shows through, or the output is one flat colour";
    shot.save(QStringLiteral(TURNELO_BINARY_DIR "/wayland-room.png"));
    EXPECT_TRUE(room.animatesAfter(at)) << "the room does not animate";

    // A fullscreen window pauses the frames; closed, they resume.
    QProcess terminal;
    terminal.setProcessEnvironment(room.env);
    terminal.setStandardOutputFile(QProcess::nullDevice());
    terminal.setStandardErrorFile(QProcess::nullDevice());
    terminal.start("foot", {"--app-id", "blocker", "sleep", "600"});
    ASSERT_TRUE(waitUntil(
        [&] {
            return sway.msg({"-t", "get_tree"}).contains("\"blocker\"");
        },
        30s))
        << "foot did not open a window";
    ASSERT_FALSE(sway.msg({"[app_id=\"blocker\"]", "fullscreen", "enable"}).isEmpty());
    at = room.waitForLine("Cena: área animada coberta por janelas → pausa", at);
    EXPECT_EQ(room.fpsOfAWholeIntervalAfter(at), 0.0) << "frames while covered";
    terminal.terminate();
    terminal.waitForFinished(10000);
    at = room.waitForLine("Cena: área animada à vista → renderiza", at);

    // A second output gets a room of its own; disabled, it leaves the first one drawing.
    ASSERT_FALSE(sway.msg({"create_output"}).isEmpty());
    EXPECT_TRUE(waitUntil([&] { return showsRoom(bare, sway.screenshot("HEADLESS-2")); }, 90s))
        << "no room on the second output";
    ASSERT_FALSE(sway.msg({"output", "HEADLESS-2", "disable"}).isEmpty());
    // The software device draws a second output's first base slowly: any later line will do.
    EXPECT_TRUE(room.animatesAfter(room.log().size(), 30)) << "the first output stopped drawing";
    EXPECT_EQ(room.app.state(), QProcess::Running) << "the program did not survive the output's removal";
    EXPECT_TRUE(showsRoom(bare, sway.screenshot("HEADLESS-1"))) << "the first output lost its room";
}

TEST(WaylandWithoutLayerShell, NoWindowAndTheLogSaysWhy)
{
    WestonServer weston;
    QString why;
    if (!weston.start(why)) GTEST_SKIP() << why.toStdString();
    PrivateBus bus;
    ASSERT_TRUE(bus.ok());
    RoomProcess room(weston.environment(), bus.address);
    // Every request the program makes to the compositor, in its output.
    room.env.insert("WAYLAND_DEBUG", "client");
    ASSERT_TRUE(room.start({}));
    room.waitForLine("Sala indisponível: ", 0, 30);
    EXPECT_TRUE(room.log().contains("não deixa programas desenharem o fundo"));
    spin(2s);  // time enough to map a window, had it meant to
    EXPECT_EQ(room.app.state(), QProcess::Running);
    room.app.terminate();
    room.app.waitForFinished(10000);
    const QByteArray requests = room.app.readAll();
    // The probe's connection and Qt's own (which would make any window) are both seen.
    EXPECT_GE(requests.count("wl_display@1.get_registry("), 2) << "the program's Wayland requests were not seen";
    EXPECT_FALSE(requests.contains("get_toplevel")) << "a window was made";
    EXPECT_FALSE(requests.contains("get_layer_surface"));
}

}  // namespace
