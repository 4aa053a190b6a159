// The real program under KWin's Wayland session (its virtual backend) at a fractional scale of
// 1.5: the room draws its surfaces at the output's device pixels through viewports, not at the
// next whole scale for the compositor to shrink, and its moving layers lie on whole logical
// pixels. With the window list KWin gives it, a small window leaves it drawing and a fullscreen
// one pauses it.

#include "KWinServer.h"
#include "PrivateBus.h"
#include "RoomProcess.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <gtest/gtest.h>

using namespace testsupport;

namespace {

TEST(KWinWayland, AtAFractionalScaleTheRoomIsDrawnAtTheOutputsPixelsAndAFullscreenWindowPausesIt)
{
    PrivateBus bus;
    ASSERT_TRUE(bus.ok());
    KWinServer kwin;
    kwin.trust(QFileInfo(RoomProcess::program()).canonicalFilePath(), "org_kde_plasma_window_management");
    QString why;
    const QString address = bus.env().value("DBUS_SESSION_BUS_ADDRESS");
    if (!kwin.start(QSize(1280, 720), "1.5", address, why)) GTEST_SKIP() << why.toStdString();
    QTemporaryDir dir;
    RoomProcess room(kwin.environment(), address);
    ASSERT_TRUE(room.makeScene(dir.filePath("scene")));
    room.set("perfLogInterval", "-float", "1");
    // Every request the program makes to the compositor, in its output.
    room.env.insert("WAYLAND_DEBUG", "client");
    ASSERT_TRUE(room.start());
    // KWin prefers its scale once the surface is on the output, after the first picture.
    qsizetype at = room.waitForLine("Wayland: saída Virtual-0 em escala 1,5 (1920×1080 pixels)", 0, 180);
    room.waitForLine("Wayland: janelas pela lista do KWin", 0, 10);
    room.waitForLine("Cena pronta", 0, 180);
    EXPECT_TRUE(room.animatesAfter(at)) << "no frames at the new scale";

    QImage shot;
    EXPECT_TRUE(waitUntil(
        [&] {
            shot = kwin.screenshot();
            return greyLevels(shot, shot.rect()).second > 6;
        },
        std::chrono::seconds(60)))
        << "no room on the screen";
    shot.save(QStringLiteral(TURNELO_BINARY_DIR "/kwin-room.png"));
    EXPECT_EQ(shot.size(), QSize(1920, 1080));

    // A window over part of the room leaves it drawing; a fullscreen one pauses it until it goes.
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
    EXPECT_EQ(room.fpsOfAWholeIntervalAfter(at), 0.0) << "frames while covered";
    PrivateHome::stop(full);
    room.waitForLine("Cena: área animada à vista → renderiza", at);
    PrivateHome::stop(small);

    room.app.terminate();
    room.app.waitForFinished(10000);
    const QString debug = QString::fromUtf8(room.app.readAll());
    // What was asked once the compositor had said its scale.
    const qsizetype told = debug.lastIndexOf("preferred_scale(180)");
    ASSERT_GE(told, 0) << "no fractional scale was offered";
    const QString requests = debug.mid(told);
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

}  // namespace
