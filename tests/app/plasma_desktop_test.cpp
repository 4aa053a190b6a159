// The real program on KDE Plasma under Xvfb: kwin_x11 compositing on the software GL, plasmashell
// on a private session bus painting its own wallpaper into a 32-bit desktop window. The room
// must show above that window (below the panel), and pause when another program's opaque
// desktop window ends up above it. One bring-up for both: plasmashell starts slowly.

#include "AppLog.h"
#include "TestSupport.h"
#include "XServer.h"

#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QRegularExpression>
#include <gtest/gtest.h>
#include <cmath>
#include <iostream>
#include "XClient.h"  // last: Xlib's macros clash with gtest's templates

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

QString binary(const QString &name) { return QStringLiteral(TURNELO_BINARY_DIR "/") + name; }

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
    // KWin and plasmashell are Qt programs too: on the X server, not on the tests' offscreen.
    const ScopedEnv platform("QT_QPA_PLATFORM", "xcb");
    const ScopedEnv compose("KWIN_COMPOSE", "O2");  // OpenGL compositing, here on llvmpipe
    XServer x(QStringLiteral("1280x720x24"));
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
    auto shot = [&] { return QImage::fromData(x.run("import", {"-window", "root", "png:-"}), "PNG"); };
    const QRect desk(0, 0, 1280, 600);  // above Plasma's panel
    Window plasmaDesktop = 0, panel = 0;
    QImage wallpaper;
    ASSERT_TRUE(waitUntil(
                    [&] {
                        plasmaDesktop = clientOf("plasmashell", "_NET_WM_WINDOW_TYPE_DESKTOP");
                        panel = clientOf("plasmashell", "_NET_WM_WINDOW_TYPE_DOCK");
                        wallpaper = shot();
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

    // The room, as a user past the welcome starts it.
    QTemporaryDir dir;
    const QString scene = dir.filePath("scene");
    ASSERT_EQ(runTool(binary("tools/turnelo-gen-scene"),
                      {"--out", scene, "--width", "640", "--height", "360", "--framings", "wide"})
                  .exitCode,
              0);
    QProcessEnvironment env = x.environment();
    env.insert("DBUS_SYSTEM_BUS_ADDRESS", env.value("DBUS_SESSION_BUS_ADDRESS"));
    env.insert("TURNELO_SCENES_DIR", scene);
    env.insert("VK_ICD_FILENAMES", lavapipeIcd());
    env.remove("QT_QPA_PLATFORM");
    for (const QStringList &args : {QStringList{"write", "onboardingDone", "-bool", "true"},
                                    QStringList{"write", "perfLogInterval", "-float", "1"}}) {
        QProcess tool;
        tool.setProcessEnvironment(env);
        tool.start(binary("tools/turnelo-defaults"), args);
        ASSERT_TRUE(tool.waitForFinished(30000) && tool.exitCode() == 0);
    }
    QProcess app;
    app.setProcessEnvironment(env);
    app.setProcessChannelMode(QProcess::MergedChannels);
    app.start(binary("turnelo"), {"--music-setup-done"});
    ASSERT_TRUE(app.waitForStarted(10000));
    const AppLog appLog(x.stateHome(), app);
    const auto log = [&] { return appLog.text(); };
    const auto waitForLine = [&](const QString &text, qsizetype from, std::chrono::seconds patience = 60s) {
        return appLog.waitForLine(text, from, int(patience.count()));
    };
    struct Stop {
        QProcess &app;
        ~Stop()
        {
            app.terminate();
            if (!app.waitForFinished(10000)) app.kill();
        }
    } stop{app};
    qsizetype at = waitForLine("Cena pronta", 0, 180s);
    ASSERT_FALSE(HasFailure()) << log().toStdString() << app.readAll().toStdString();
    const Window ours = clientOf("turnelo", "_NET_WM_WINDOW_TYPE_DESKTOP");
    ASSERT_NE(ours, 0ul);

    // Above Plasma's desktop, below its panel, and what the screen shows is the room.
    EXPECT_TRUE(waitUntil([&] { return c.stackIndex(ours) > c.stackIndex(plasmaDesktop); }, 30s))
        << "ours at " << c.stackIndex(ours) << ", Plasma's desktop at " << c.stackIndex(plasmaDesktop);
    EXPECT_GT(c.stackIndex(panel), c.stackIndex(ours));
    QImage screen, room;
    waitUntil(
        [&] {
            screen = shot();
            room = QImage::fromData(x.run("import", {"-window", QString::number(ours), "png:-"}), "PNG");
            return !screen.isNull() && room.size() == screen.size() && difference(screen, room, desk) < 6;
        },
        30s);
    screen.save(QStringLiteral(TURNELO_BINARY_DIR "/plasma-desktop-room.png"));
    ASSERT_EQ(room.size(), screen.size());
    EXPECT_LT(difference(screen, room, desk), 6) << "the screen does not show the room's window";
    EXPECT_GT(difference(screen, wallpaper, desk), 20) << "the screen still shows Plasma's wallpaper";
    const QStringList told = log().split('\n').filter("Mesa:");
    ASSERT_FALSE(told.isEmpty());
    EXPECT_TRUE(told.first().contains("(plasmashell) é opaca")) << told.first().toStdString();
    static const QRegularExpression moving(QStringLiteral("Perf \\d+s: [1-9][0-9.]* fps"));
    EXPECT_TRUE(waitUntil([&] { return moving.match(log(), at).hasMatch(); }, 60s)) << "the room does not animate";

    // Another program's opaque desktop window that puts itself back on top each time the room
    // rises above it: the room leaves it there and stops drawing for nobody.
    at = log().size();
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
            return (onTop.isValid() && onTop.elapsed() > 3000) || app.state() != QProcess::Running;
        },
        60s);
    at = waitForLine("Cena: área animada coberta por janelas → pausa", at);
    EXPECT_GT(c.stackIndex(other), c.stackIndex(ours));
    EXPECT_EQ(log().count("Mesa: a janela de desktop (?) volta sempre para cima da sala"), 1) << "said once";
    static const QRegularExpression still(QStringLiteral("Perf \\d+s: 0.0 fps"));
    EXPECT_TRUE(waitUntil([&] { return still.match(log(), at).hasMatch(); }, 30s)) << "frames while covered";
    c.close(other);
    waitForLine("Cena: área animada à vista → renderiza", at);
    if (HasFailure()) std::cerr << "log:\n" << log().toStdString() << "\noutput:\n" << app.readAll().toStdString();
}
