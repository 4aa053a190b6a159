// The real program on a real X server with a real window manager, a private bus with mocked
// UPower, logind and screen saver, and the software Vulkan device: the room comes up on the
// desktop, pauses when covered or locked, and follows power, screens and the scene on disk.

#include "PrivateBus.h"
#include "RoomProcess.h"
#include "TestSupport.h"
#include "XServer.h"

#include <QDBusMessage>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>
#include <gtest/gtest.h>
#include <optional>
#include "XClient.h"  // last: Xlib's macros clash with gtest's templates

using namespace testsupport;

namespace {

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

    // The program's windows smaller than the screen: its moving layers, largest first (the
    // record and arm, then the steam).
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
    // A weather service that refuses at once: every fetch leaves a line.
    room->set("weatherServiceURL", "-string", "http://127.0.0.1:9/");
    ASSERT_TRUE(room->start());
    qsizetype at = room->waitForLine("Cena pronta", 0, 180);
    ASSERT_FALSE(HasFailure());
    // The line comes once the room is on the screen, not before.
    EXPECT_GT(brightness(), 8) << "\"Cena pronta\" over a black desktop";
    // Frames run (the software device compiles its shaders at the first one, which takes a while).
    EXPECT_TRUE(room->animatesAfter(at)) << "the room does not animate";
    ASSERT_TRUE(waitUntil([&] { return layers().size() == 2; }, std::chrono::seconds(30)))
        << "the record and the steam move in windows of their own; layers: " << layers().size();
    const QRect layer = layers().front();

    // What a person sees: the room over the whole root window, the moving layer drawn too.
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
        std::chrono::seconds(60));
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

    // Two windows that leave one of the 25 sample points free: the room keeps animating.
    const int fifthW = layer.width() / 5, fifthH = layer.height() / 5;
    blocker.move(over, QRect(layer.left() + fifthW, 0, 1280 - layer.left() - fifthW, 720));
    const Window below = blocker.makeWindow(QRect(0, layer.top() + fifthH, 1280, 720 - layer.top() - fifthH));
    QThread::msleep(2000);
    EXPECT_EQ(room->log().indexOf("coberta por janelas", at), -1) << "paused with a sample point in sight";
    blocker.close(below);
    blocker.close(over);
    // Where they were, the room comes back.
    EXPECT_TRUE(waitUntil([&] { return std::abs(brightness() - shown) < 3; }, std::chrono::seconds(10)))
        << "after the windows closed the desktop's brightness is " << brightness() << ", not " << shown;

    // The screen saver locks the screen.
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
    const qsizetype battery = room->waitForLine("Energia: bateria", at);
    at = room->waitForLine("Cena: modo economia ligado (15 fps, sem vapor e chuva)", at);
    EXPECT_EQ(room->log().indexOf("Energia: bateria", battery), -1) << "the battery line came twice";
    // The saver holds the steam still: its layer goes away.
    EXPECT_TRUE(waitUntil([&] { return layers().size() == 1; }, std::chrono::seconds(20)))
        << "layers left: " << layers().size();

    // A light change fades once the night is built: no picture on the way is darker than both
    // the day before and the night after. The software device compiles the fade's programs
    // first, which takes a varying while, so the picture is followed until it has changed and
    // then held for two seconds.
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

    // A light plate damaged on disk: the reload ends in the plain turntable and the reason, and
    // the program goes on.
    QFile plate(scene + "/wide/light/room.exr");
    ASSERT_TRUE(plate.open(QIODevice::ReadWrite) && plate.resize(plate.size() / 2));
    plate.close();
    QFile manifest(scene + "/manifest.json");  // the same bytes again: a change to notice
    ASSERT_TRUE(manifest.open(QIODevice::ReadWrite));
    const QByteArray body = manifest.readAll();
    manifest.seek(0);
    manifest.write(body);
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
    // Two monitors on one X screen, as a laptop with an external display.
    x.run("xrandr", {"--setmonitor", "left", "640/170x720/190+0+0", "default"});
    x.run("xrandr", {"--setmonitor", "right", "640/170x720/190+640+0", "none"});
    ASSERT_TRUE(room->makeScene(dir.filePath("scene")));
    room->set("screens", "-string", "all");
    ASSERT_TRUE(room->start());
    room->waitForLine("Cena pronta", 0, 180);
    ASSERT_FALSE(HasFailure());
    // The program's desktop windows.
    XClient c(x.display());
    auto ours = [&] {
        std::vector<unsigned long> list;
        for (const unsigned long w : c.values(c.root(), "_NET_CLIENT_LIST"))
            if (c.values(w, "_NET_WM_PID") ==
                    std::vector<unsigned long>{static_cast<unsigned long>(room->app.processId())} &&
                c.has(w, "_NET_WM_WINDOW_TYPE", "_NET_WM_WINDOW_TYPE_DESKTOP"))
                list.push_back(w);
        return list;
    };
    std::vector<unsigned long> windows;
    waitUntil([&] { return (windows = ours()).size() == 2; }, std::chrono::seconds(30));
    ASSERT_EQ(windows.size(), 2u);
    // Both screens on one device, the framing loaded once for both.
    EXPECT_EQ(room->log().count("Vulkan: dispositivo"), 1);
    EXPECT_EQ(room->log().count("montando presets"), 1);
    room->set("screens", "-string", "main");
    std::vector<unsigned long> after;
    waitUntil([&] { return (after = ours()).size() == 1; }, std::chrono::seconds(30));
    ASSERT_EQ(after.size(), 1u);
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
    EXPECT_TRUE(waitUntil(
        [&] {
            return !x.run("xdotool", {"search", "--name", "Turnelo Settings"}).trimmed().isEmpty();
        },
        std::chrono::seconds(20)))
        << "no settings window";
}

TEST_F(DesktopRoom, WithoutASceneThePlainTurntableShowsAndTheTrayMenuHidesIt)
{
    // A system tray of the kind bare window managers use (XEmbed).
    if (!XServer::installed("trayer")) GTEST_SKIP() << "trayer is not installed";
    x.launch("trayer", {"--edge", "top", "--align", "right", "--widthtype", "request", "--height", "24"});
    // Neither a development scene nor an installed one.
    room->env.insert("TURNELO_SCENES_DIR", dir.path());
    ASSERT_TRUE(room->start());
    room->waitForLine("Cena indisponível: nenhuma cena instalada em", 0, 120);
    ASSERT_FALSE(HasFailure());
    // The plain turntable is drawn by the painter: its plinth and record show on the desktop.
    QImage shot;
    ASSERT_TRUE(waitUntil(
        [&] {
            shot = x.screenshot();
            return !shot.isNull() && qGray(shot.pixel(shot.width() / 2, shot.height() / 2)) != qGray(shot.pixel(4, 4));
        },
        std::chrono::seconds(30)))
        << "nothing drawn on the desktop";
    shot.save(QStringLiteral(TURNELO_BINARY_DIR "/desktop-turntable.png"));

    // The tray icon sits in the tray; its menu's first entry hides the room.
    // Where the icon sits: the first window of ours under the tray's panel, absolute corner.
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
    ASSERT_TRUE(waitUntil([&] { return (icon = trayIcon()).has_value(); }, std::chrono::seconds(30)))
        << "no tray icon in the tray:\n"
        << x.run("xwininfo", {"-root", "-tree"}).toStdString();
    x.run("xdotool", {"mousemove", QString::number(icon->x() + 8), QString::number(icon->y() + 8), "click", "3"});
    QThread::msleep(1000);
    x.run("xdotool", {"key", "Down", "Return"});
    EXPECT_TRUE(waitUntil([&] { return room->setting("showTurntable") == "false"; }, std::chrono::seconds(20)))
        << "the menu did not hide the room";
}

}  // namespace
