// The real program on X with the software Vulkan device. Under openbox, with mocked UPower, logind
// and screen saver, the room shows, pauses when covered or locked, follows power, screens and disk.
// Under KDE Plasma (kwin_x11 compositing on software GL, plasmashell painting its wallpaper into a
// 32-bit desktop window) it shows above that window, below the panel.

#include "PrivateBus.h"
#include "RoomProcess.h"
#include "XServer.h"

#include <QElapsedTimer>
#include <QFile>
#include <QThread>
#include <gtest/gtest.h>
#include <optional>
#include "XClient.h"  // last: Xlib's macros clash with gtest's templates

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

// The managed windows of `type` whose class is `program`.
std::vector<Window> clientsOf(XClient &c, const char *program, const char *type)
{
    std::vector<Window> found;
    for (const unsigned long w : c.values(c.root(), "_NET_CLIENT_LIST")) {
        XClassHint names{};
        const bool named = XGetClassHint(c.d, w, &names);
        if (named && QByteArray(names.res_class) == program && c.has(w, "_NET_WM_WINDOW_TYPE", type))
            found.push_back(w);
        if (named) XFree(names.res_name), XFree(names.res_class);
    }
    return found;
}

class DesktopRoom : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!XServer::installed("openbox")) GTEST_SKIP() << "openbox is not installed";
        QString why;
        ASSERT_TRUE(x.start(why) && x.startManager("openbox", {"--sm-disable"}, why)) << why.toStdString();
        ASSERT_TRUE(bus.ok());
        upower = DbusMock::fromTemplate(bus, "upower", "org.freedesktop.UPower");
        screensaver = DbusMock::bare(bus, "org.freedesktop.ScreenSaver", "/ScreenSaver", "org.freedesktop.ScreenSaver");
        logind = DbusMock::fromTemplate(bus, "logind", "org.freedesktop.login1");
        for (DbusMock *mock : {upower.get(), screensaver.get(), logind.get()})
            ASSERT_TRUE(mock->ok()) << mock->errors().toStdString();
        room.emplace(x.environment(), bus.address);
    }

    // The program's windows smaller than the screen: its moving layers, largest (record and arm) first.
    std::vector<QRect> layers()
    {
        const QString tree = QString::fromUtf8(x.run("xwininfo", {"-root", "-tree"}));
        static const QRegularExpression child(QStringLiteral(
            "\"turnelo\": \\(\"turnelo\" \"turnelo\"\\)\\s+(\\d+)x(\\d+)\\+-?\\d+\\+-?\\d+\\s+\\+(-?\\d+)\\+(-?\\d+)"));
        std::vector<QRect> found;
        for (auto it = child.globalMatch(tree); it.hasNext();) {
            const auto m = it.next();
            const QRect r(m.captured(3).toInt(), m.captured(4).toInt(), m.captured(1).toInt(), m.captured(2).toInt());
            if (r.width() < 1280 || r.height() < 720) found.push_back(r);
        }
        std::sort(found.begin(), found.end(),
                  [](QRect a, QRect b) { return a.width() * a.height() > b.width() * b.height(); });
        return found;
    }
    // The mean grey level of the screen, -1 without a screenshot.
    double brightness()
    {
        const QImage shot = x.screenshot();
        return shot.isNull() ? -1.0 : greyLevels(shot, shot.rect()).first;
    }

    QTemporaryDir dir;
    XServer x{"1280x720x24"};
    PrivateBus bus;
    std::unique_ptr<DbusMock> upower, screensaver, logind;
    std::optional<RoomProcess> room;
};

TEST_F(DesktopRoom, ShowsTheRoomAndPausesWhenNobodyCanSeeIt)
{
    const QString scene = dir.filePath("scene");
    ASSERT_TRUE(room->makeScene(scene));
    room->set("perfLogInterval", "-float", "1");
    room->set("lightPreset", "-string", "dia");
    room->set("weatherServiceURL", "-string", "http://127.0.0.1:9/");  // refuses at once: a line per fetch
    ASSERT_TRUE(room->start());
    qsizetype at = room->waitForLine("Cena pronta", 0, 180);
    ASSERT_FALSE(HasFailure());
    EXPECT_TRUE(room->animatesAfter(at)) << "the room does not animate";
    ASSERT_TRUE(waitUntil([&] { return layers().size() == 2; }, 30s))
        << "the record and the steam move in windows of their own; layers: " << layers().size();
    const QRect layer = layers().front();

    // The room over the whole root window, its moving layers drawn too.
    QImage shot;
    std::pair<double, double> whole, moved;
    waitUntil(
        [&] {
            shot = x.screenshot();
            if (shot.isNull()) return false;
            whole = greyLevels(shot, shot.rect());
            moved = greyLevels(shot, layer.intersected(shot.rect()));
            return whole.first > 8 && whole.second > 6 && moved.first > 8;
        },
        60s);
    shot.save(QStringLiteral(TURNELO_BINARY_DIR "/desktop-room.png"));
    EXPECT_GT(whole.first, 8) << "the desktop is black";
    EXPECT_GT(whole.second, 6) << "the desktop is one flat colour";
    EXPECT_GT(moved.first, 8) << "the moving layer is black";
    EXPECT_GT(greyLevels(shot, layers().back().intersected(shot.rect())).first, 8) << "the steam's layer is black";
    const double shown = brightness();

    // A window over the whole moving area pauses the frames; moved away, they resume.
    XClient blocker(x.display());  // plain opaque windows of another program
    ASSERT_TRUE(blocker.d);
    const Window over = blocker.makeWindow(QRect(0, 0, 1280, 720));
    at = room->waitForLine("Cena: área animada coberta por janelas → pausa", at);
    EXPECT_EQ(room->fpsOfAWholeIntervalAfter(at), 0.0) << "frames while covered";
    blocker.move(over, QRect(0, 0, 1280, std::max(1, layer.top() - 40)));
    at = room->waitForLine("Cena: área animada à vista → renderiza", at);

    blocker.close(over);
    EXPECT_TRUE(waitUntil([&] { return std::abs(brightness() - shown) < 3; }, 10s))
        << "after the window closed the desktop's brightness is " << brightness() << ", not " << shown;

    for (const bool active : {true, false}) {
        ASSERT_TRUE(isReply(screensaver->callMock("/ScreenSaver", "EmitSignal",
                                                  {QString(), "ActiveChanged", "b", QVariantList{active}})));
        at = room->waitForLine(active ? "Cena: screenIsLocked → pausa" : "Cena: screenIsUnlocked → renderiza", at);
    }

    // Woken from sleep, the weather is asked again at once, not after the 300 s retry.
    room->waitForLine("Clima: falhou", 0);
    const qsizetype beforeSleep = room->log().size();
    for (const bool sleeping : {true, false})
        ASSERT_TRUE(isReply(
            logind->callMock("/org/freedesktop/login1", "EmitSignal",
                             {"org.freedesktop.login1.Manager", "PrepareForSleep", "b", QVariantList{sleeping}})));
    at = room->waitForLine("Clima: falhou", beforeSleep, 20);

    // Unplugged: the saver takes the room down to 15 frames a second.
    ASSERT_TRUE(isReply(upower->setProperty("/org/freedesktop/UPower", "org.freedesktop.UPower", "OnBattery", true)));
    at = room->waitForLine("Cena: modo economia ligado (15 fps, sem vapor e chuva)", at);
    EXPECT_TRUE(waitUntil([&] { return layers().size() == 1; }, 20s)) << "still steam; layers: " << layers().size();

    // A light change fades once the night is built: no picture on the way darker than both ends.
    // The fade's programs compile for a varying while: followed until changed, then still for 2 s.
    const double day = brightness();
    room->set("lightPreset", "-string", "noite");
    std::vector<double> seen{day};
    QElapsedTimer fading, steady;
    fading.start();
    steady.start();
    while (fading.elapsed() < 60000 && (std::abs(seen.back() - day) < 0.5 || steady.elapsed() < 2000)) {
        QThread::msleep(200);
        seen.push_back(brightness());
        if (std::abs(seen.back() - seen[seen.size() - 2]) > 0.5) steady.restart();
    }
    ASSERT_NE(room->log().indexOf("Cena: luz noite montado", at), -1) << "the night was never built";
    const double night = seen.back();
    EXPECT_LT(night, day) << "the night is not darker than the day";
    EXPECT_GE(*std::min_element(seen.begin(), seen.end()), std::min(day, night) - 2.0)
        << "a picture darker than both ends on the way from " << day << " to " << night;

    // A light plate damaged on disk: the reload ends in the plain turntable and the reason.
    QFile plate(scene + "/wide/light/room.exr");
    ASSERT_TRUE(plate.open(QIODevice::ReadWrite) && plate.resize(plate.size() / 2));
    plate.close();
    QFile manifest(scene + "/manifest.json");  // the same bytes again: a change to notice
    ASSERT_TRUE(manifest.open(QIODevice::ReadWrite));
    const QByteArray body = manifest.readAll();
    ASSERT_TRUE(manifest.seek(0) && manifest.write(body) == body.size());
    manifest.close();
    at = room->waitForLine("Cena: carregando", at, 60);
    QElapsedTimer failing;
    failing.start();
    at = room->waitForLine("Cena indisponível: ", at, 60);
    EXPECT_LT(failing.elapsed(), 10000) << "the reason came late";
    EXPECT_TRUE(room->log().mid(at).section('\n', 0, 0).contains("room.exr")) << room->log().mid(at).toStdString();
    QThread::msleep(1000);
    EXPECT_EQ(room->app.state(), QProcess::Running);
}

TEST_F(DesktopRoom, AllScreensGetAWindowAndMainKeepsTheFirst)
{
    // A second monitor on the X screen, over its right half (Xvfb's one output keeps its own).
    x.run("xrandr", {"--setmonitor", "right", "640/170x720/190+640+0", "none"});
    ASSERT_TRUE(room->makeScene(dir.filePath("scene")));
    room->set("screens", "-string", "all");
    ASSERT_TRUE(room->start());
    room->waitForLine("Cena pronta", 0, 180);
    ASSERT_FALSE(HasFailure());
    XClient c(x.display());
    auto ours = [&] { return clientsOf(c, "turnelo", "_NET_WM_WINDOW_TYPE_DESKTOP"); };  // of any room
    std::vector<Window> windows, after;
    ASSERT_TRUE(waitUntil([&] { return (windows = ours()).size() == 2; }, 30s)) << windows.size() << " windows";
    // Both screens on one device, the framing loaded once for both.
    EXPECT_EQ(room->log().count("Vulkan: dispositivo"), 1);
    EXPECT_EQ(room->log().count("montando presets"), 1);
    room->set("screens", "-string", "main");
    ASSERT_TRUE(waitUntil([&] { return (after = ours()).size() == 1; }, 30s)) << after.size() << " windows";
    EXPECT_NE(std::find(windows.begin(), windows.end(), after.front()), windows.end())
        << "the kept window was made anew";
    EXPECT_FALSE(room->log().contains("Cena indisponível"));

    // A second start reaches the running room instead of opening another one.
    QProcess second;
    second.setProcessEnvironment(room->env);
    second.start(RoomProcess::program(), {});
    ASSERT_TRUE(second.waitForFinished(30000));
    EXPECT_EQ(second.exitCode(), 0);
    room->waitForLine("Turnelo: aberta de novo");
    EXPECT_EQ(ours().size(), 1u) << "a second room opened";
    // With the tray icon possibly hidden, a second start is how the settings are reached.
    const auto settingsShown = [&] {
        return !x.run("xdotool", {"search", "--name", "Turnelo Settings"}).trimmed().isEmpty();
    };
    EXPECT_TRUE(waitUntil(settingsShown, 20s)) << "no settings window";
}

TEST_F(DesktopRoom, WithoutASceneThePlainTurntableShowsAndTheTrayMenuHidesIt)
{
    // A system tray of the kind bare window managers use (XEmbed).
    if (!XServer::installed("trayer")) GTEST_SKIP() << "trayer is not installed";
    x.launch("trayer", {"--edge", "top", "--align", "right", "--widthtype", "request", "--height", "24"});
    room->env.insert("TURNELO_SCENES_DIR", dir.path());
    ASSERT_TRUE(room->start());
    room->waitForLine("Cena indisponível: nenhuma cena instalada em", 0, 120);  // no scene at all
    ASSERT_FALSE(HasFailure());
    // The painter's plain turntable: its plinth and record show on the desktop.
    QImage shot;
    ASSERT_TRUE(waitUntil(
        [&] {
            shot = x.screenshot();
            return !shot.isNull() && qGray(shot.pixel(shot.width() / 2, shot.height() / 2)) != qGray(shot.pixel(4, 4));
        },
        30s))
        << "nothing drawn on the desktop";
    shot.save(QStringLiteral(TURNELO_BINARY_DIR "/desktop-turntable.png"));

    // The tray icon (our first window under trayer's panel) opens a menu whose first entry hides the room.
    auto trayIcon = [&]() -> std::optional<QPoint> {
        const QStringList tree = QString::fromUtf8(x.run("xwininfo", {"-root", "-tree"})).split('\n');
        static const QRegularExpression corner("\\+(\\d+)\\+(\\d+)\\s*$");
        bool inPanel = false;
        for (const QString &line : tree) {
            inPanel = inPanel || line.contains("\"panel\": (\"panel\" \"trayer\")");
            if (const auto m = corner.match(line); inPanel && line.contains("\"turnelo\"") && m.hasMatch())
                return QPoint(m.captured(1).toInt(), m.captured(2).toInt());
        }
        return std::nullopt;
    };
    std::optional<QPoint> icon;
    ASSERT_TRUE(waitUntil([&] { return (icon = trayIcon()).has_value(); }, 30s))
        << "no tray icon in the tray:\n"
        << x.run("xwininfo", {"-root", "-tree"}).toStdString();
    x.run("xdotool", {"mousemove", QString::number(icon->x() + 8), QString::number(icon->y() + 8), "click", "3"});
    QThread::msleep(1000);
    x.run("xdotool", {"key", "Down", "Return"});
    EXPECT_TRUE(waitUntil([&] { return room->setting("showTurntable") == "false"; }, 20s))
        << "the menu did not hide the room";
}

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

// One test for both: plasmashell starts slowly.
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
    auto clientOf = [&](const char *program, const char *type) {
        const auto all = clientsOf(c, program, type);
        return all.empty() ? Window(0) : all.front();
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
    EXPECT_TRUE(room.animatesAfter(at, 60)) << "the room does not animate";

    // Another program's opaque desktop window that puts itself back on top each time the room rises
    // above it (until it has stayed there 3 s): the room leaves it there and stops drawing for nobody.
    at = room.log().size();
    const Window other = c.makeWindow(QRect(0, 0, 1280, 720), false, "_NET_WM_WINDOW_TYPE_DESKTOP");
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
    c.close(other);
    room.waitForLine("Cena: área animada à vista → renderiza", at);
}

}  // namespace
