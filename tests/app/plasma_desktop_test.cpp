// The real program on KDE Plasma under Xvfb: kwin_x11 compositing on the software GL, plasmashell
// on a private session bus painting its own wallpaper into a 32-bit desktop window. The room
// must show above that window (below the panel), and pause when another program's opaque
// desktop window ends up above it. One bring-up for both: plasmashell starts slowly.

#include "RoomProcess.h"
#include "TestSupport.h"
#include "XServer.h"

#include <QElapsedTimer>
#include <gtest/gtest.h>
#include "XClient.h"  // last: Xlib's macros clash with gtest's templates

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

// Mean absolute difference of the grey levels of two pictures over `r`, every fourth pixel.
double difference(const QImage &a, const QImage &b, const QRect &r)
{
    double sum = 0;
    int n = 0;
    for (int y = r.top(); y <= r.bottom(); y += 4)
        for (int x = r.left(); x <= r.right(); x += 4, ++n)
            sum += std::abs(qGray(a.pixel(x, y)) - qGray(b.pixel(x, y)));
    return n ? sum / n : 255;
}

}  // namespace

TEST(PlasmaDesktop, TheRoomShowsAbovePlasmasDesktopAndPausesUnderAnOpaqueDesktopWindowAboveIt)
{
    for (const char *program : {"kwin_x11", "plasmashell"})
        if (!XServer::installed(program)) GTEST_SKIP() << program << " is not installed";
    const ScopedEnv compose("KWIN_COMPOSE", "O2");  // OpenGL compositing, here on llvmpipe
    XServer x("1280x720x24");
    QString why;
    ASSERT_TRUE(x.start(why) && x.startSessionBus(why)) << qPrintable(why);
    ASSERT_TRUE(x.startManager("kwin_x11", {"--replace"}, why)) << qPrintable(why);
    XClient c(x.display());
    ASSERT_TRUE(c.d);
    ASSERT_TRUE(waitUntil([&] { return XGetSelectionOwner(c.d, c.atom("_NET_WM_CM_S0")) != 0; }, 60s))
        << "KWin does not composite";

    QProcess &plasma = x.launch("plasmashell", {});
    auto clientOf = [&](const char *program, const char *type) -> Window {
        for (const unsigned long w : c.values(c.root(), "_NET_CLIENT_LIST")) {
            XClassHint names{};
            const bool named = XGetClassHint(c.d, w, &names);
            const bool match = named && QByteArray(names.res_class) == program && c.has(w, "_NET_WM_WINDOW_TYPE", type);
            if (named) XFree(names.res_name), XFree(names.res_class);
            if (match) return w;
        }
        return 0;
    };
    const QRect desk(0, 0, 1280, 600);  // above Plasma's panel
    Window plasmaDesktop = 0, panel = 0;
    QImage wallpaper;
    ASSERT_TRUE(waitUntil(
                    [&] {
                        plasmaDesktop = clientOf("plasmashell", "_NET_WM_WINDOW_TYPE_DESKTOP");
                        panel = clientOf("plasmashell", "_NET_WM_WINDOW_TYPE_DOCK");
                        wallpaper = x.screenshot();
                        return (plasmaDesktop && panel && !wallpaper.isNull() &&
                                qGray(wallpaper.pixel(640, 300)) > 8) ||
                               plasma.state() == QProcess::NotRunning;
                    },
                    120s) &&
                plasma.state() == QProcess::Running)
        << "no painted Plasma desktop and panel:\n"
        << XServer::output(plasma).right(3000).constData();
    XWindowAttributes attributes;
    ASSERT_TRUE(XGetWindowAttributes(c.d, plasmaDesktop, &attributes));
    EXPECT_EQ(attributes.depth, 32) << "Plasma's desktop window is no longer the 32-bit one this test is about";

    // The room, as a user past the welcome starts it, on the session's bus.
    QTemporaryDir dir;
    RoomProcess room(x.environment(), x.environment().value("DBUS_SESSION_BUS_ADDRESS"));
    ASSERT_TRUE(room.makeScene(dir.filePath("scene")));
    room.set("perfLogInterval", "-float", "1");
    ASSERT_TRUE(room.start());
    qsizetype at = room.waitForLine("Cena pronta", 0, 180);
    ASSERT_FALSE(HasFailure());
    const Window ours = clientOf("turnelo", "_NET_WM_WINDOW_TYPE_DESKTOP");
    ASSERT_NE(ours, 0ul);

    // Above Plasma's desktop, below its panel, and what the screen shows is the room.
    EXPECT_TRUE(waitUntil([&] { return c.stackIndex(ours) > c.stackIndex(plasmaDesktop); }, 30s))
        << "ours at " << c.stackIndex(ours) << ", Plasma's desktop at " << c.stackIndex(plasmaDesktop);
    EXPECT_GT(c.stackIndex(panel), c.stackIndex(ours));
    QImage screen, drawn;
    waitUntil(
        [&] {
            screen = x.screenshot();
            drawn = x.screenshot(QString::number(ours));
            return !screen.isNull() && drawn.size() == screen.size() && difference(screen, drawn, desk) < 6;
        },
        30s);
    screen.save(QStringLiteral(TURNELO_BINARY_DIR "/plasma-desktop-room.png"));
    ASSERT_EQ(drawn.size(), screen.size());
    EXPECT_LT(difference(screen, drawn, desk), 6) << "the screen does not show the room's window";
    EXPECT_GT(difference(screen, wallpaper, desk), 20) << "the screen still shows Plasma's wallpaper";
    const QStringList told = room.log().split('\n').filter("Mesa:");
    ASSERT_FALSE(told.isEmpty());
    EXPECT_TRUE(told.first().contains("(plasmashell) é opaca")) << told.first().toStdString();
    EXPECT_TRUE(room.animatesAfter(at, 60)) << "the room does not animate";

    // Another program's opaque desktop window that puts itself back on top each time the room
    // rises above it: the room leaves it there and stops drawing for nobody.
    at = room.log().size();
    const Window other = c.makeWindow(QRect(0, 0, 1280, 720), false, "_NET_WM_WINDOW_TYPE_DESKTOP");
    // It answers every change of the stacking, as such a program would, until it has stayed on top
    // for a few seconds.
    QElapsedTimer onTop;
    waitUntil(
        [&] {
            if (c.stackIndex(other) >= 0 && c.stackIndex(other) < c.stackIndex(ours)) {
                c.restack(other, Above);
                onTop.invalidate();
            } else if (!onTop.isValid()) {
                onTop.start();
            }
            return (onTop.isValid() && onTop.elapsed() > 3000) || room.app.state() != QProcess::Running;
        },
        60s);
    at = room.waitForLine("Cena: área animada coberta por janelas → pausa", at);
    EXPECT_GT(c.stackIndex(other), c.stackIndex(ours));
    EXPECT_EQ(room.log().count("Mesa: a janela de desktop (?) volta sempre para cima da sala"), 1) << "said once";
    EXPECT_EQ(room.fpsOfAWholeIntervalAfter(at), 0.0) << "frames while covered";
    c.close(other);
    room.waitForLine("Cena: área animada à vista → renderiza", at);
}
