// The real program under Wayland compositors with the software Vulkan device. Under headless sway
// the room replaces the background, pauses under a fullscreen window, and outputs come and go
// without harm; under KWin at a scale of 1.5 it draws at the output's device pixels through
// viewports, its moving layers on whole logical pixels; without layer surfaces there is no room
// and no window, and the log says why.

#include "KWinServer.h"
#include "PrivateBus.h"
#include "RoomProcess.h"
#include "SwayServer.h"
#include "TestSupport.h"
#include "WestonServer.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <gtest/gtest.h>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

// Whether `shot` shows the room, a picture and not a flat colour, over 9 in 10 sampled pixels of `bare`.
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
    // No swaybg: sway 1.7 stacks a later background under an earlier one, hiding the room.
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
    const auto opened = [&] { return sway.msg({"-t", "get_tree"}).contains("\"blocker\""); };
    ASSERT_TRUE(waitUntil(opened, 30s)) << "foot did not open a window";
    ASSERT_FALSE(sway.msg({"[app_id=\"blocker\"]", "fullscreen", "enable"}).isEmpty());
    at = room.waitForLine("Cena: área animada coberta por janelas → pausa", at);
    EXPECT_EQ(room.fpsOfAWholeIntervalAfter(at), 0.0) << "frames while covered";
    PrivateHome::stop(terminal);
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

// By KWin's window list, a small window leaves the room drawing and a fullscreen one pauses it.
TEST(KWinWayland, AtAFractionalScaleTheRoomIsDrawnAtTheOutputsPixelsAndAFullscreenWindowPausesIt)
{
    PrivateBus bus;
    ASSERT_TRUE(bus.ok());
    KWinServer kwin;
    kwin.trust(QFileInfo(RoomProcess::program()).canonicalFilePath(), "org_kde_plasma_window_management");
    QString why;
    const QString address = bus.env().value("DBUS_SESSION_BUS_ADDRESS");
    if (!KWinServer::installed("kwin_wayland")) GTEST_SKIP() << "kwin_wayland is not installed";
    ASSERT_TRUE(kwin.start(QSize(1280, 720), "1.5", address, why)) << why.toStdString();
    QTemporaryDir dir;
    RoomProcess room(kwin.environment(), address);
    ASSERT_TRUE(room.makeScene(dir.filePath("scene")));
    room.set("perfLogInterval", "-float", "1");
    room.env.insert("WAYLAND_DEBUG", "client");  // every request to the compositor, in its output
    ASSERT_TRUE(room.start());
    // KWin prefers its scale once the surface is on the output, after the first picture.
    qsizetype at = room.waitForLine("Wayland: saída Virtual-0 em escala 1,5 (1920×1080 pixels)", 0, 180);
    room.waitForLine("Wayland: janelas pela lista do KWin", 0, 10);
    room.waitForLine("Cena pronta", 0, 180);
    EXPECT_TRUE(room.animatesAfter(at)) << "no frames at the new scale";

    QImage shot;
    const auto drawn = [&] {
        shot = kwin.screenshot();
        return greyLevels(shot, shot.rect()).second > 6;
    };
    EXPECT_TRUE(waitUntil(drawn, 60s)) << "no room on the screen";
    shot.save(QStringLiteral(TURNELO_BINARY_DIR "/kwin-room.png"));

    // weston's demo clients: foot stops on KWin's virtual output, which has no physical size.
    QProcess small, full;
    for (QProcess *window : {&small, &full}) {
        window->setProcessEnvironment(kwin.environment());
        window->setStandardOutputFile(QProcess::nullDevice());
        window->setStandardErrorFile(QProcess::nullDevice());
    }
    small.start("weston-flower", {});
    EXPECT_GT(room.fpsOfAWholeIntervalAfter(room.log().size()), 0.0) << "a small window paused the room";
    full.start("weston-terminal", {"--fullscreen", "--shell=/bin/sh"});
    at = room.waitForLine("Cena: área animada coberta por janelas → pausa", at);
    PrivateHome::stop(full);
    room.waitForLine("Cena: área animada à vista → renderiza", at);
    PrivateHome::stop(small);

    room.app.terminate();
    room.app.waitForFinished(10000);
    const QString debug = QString::fromUtf8(room.app.readAll());
    const qsizetype told = debug.lastIndexOf("preferred_scale(180)");
    ASSERT_GE(told, 0) << "no fractional scale was offered";
    const QString requests = debug.mid(told);  // once the compositor had said its scale
    // The base: a buffer of the output's device pixels shown over its logical size.
    EXPECT_TRUE(requests.contains("set_destination(1280, 720)")) << "no viewport for the base";
    static const QRegularExpression buffer("create_buffer\\(new id wl_buffer@\\d+, \\d+, (\\d+), (\\d+),");
    int bases = 0, layers = 0;
    for (auto it = buffer.globalMatch(requests); it.hasNext();) {
        const auto m = it.next();
        const int w = m.captured(1).toInt(), h = m.captured(2).toInt();
        if (w == 1920 && h == 1080) {
            ++bases;
            continue;
        }
        ++layers;
        EXPECT_LT(w, 1920) << "a buffer larger than the output: " << w << "×" << h;
        // At 1.5, whole logical pixels are steps of 3 device pixels.
        EXPECT_EQ(w % 3, 0) << w << "×" << h;
        EXPECT_EQ(h % 3, 0) << w << "×" << h;
    }
    EXPECT_GT(bases, 0) << "no buffer at the output's pixels";
    EXPECT_GT(layers, 0) << "no moving layer";
    EXPECT_FALSE(requests.contains("set_buffer_scale(2)")) << "drawn at the next whole scale";
}

TEST(WaylandWithoutLayerShell, NoWindowAndTheLogSaysWhy)
{
    WestonServer weston;
    QString why;
    if (!WestonServer::installed("weston")) GTEST_SKIP() << "weston is not installed";
    ASSERT_TRUE(weston.start(why)) << why.toStdString();
    PrivateBus bus;
    ASSERT_TRUE(bus.ok());
    RoomProcess room(weston.environment(), bus.address);
    room.env.insert("WAYLAND_DEBUG", "client");  // every request to the compositor, in its output
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
