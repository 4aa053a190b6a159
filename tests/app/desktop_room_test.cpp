// The real program on a real X server with a real window manager, a private bus with mocked
// UPower, logind and screen saver, and the software Vulkan device: the room comes up on the
// desktop, pauses when covered or locked, and follows power, screens and the scene on disk.

#include "AppLog.h"
#include "PrivateBus.h"
#include "TestSupport.h"
#include "XServer.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <QRegularExpression>
#include <QUrl>
#include <QDBusMessage>
#include <QElapsedTimer>
#include <QThread>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <iostream>
#include <optional>
#include "XClient.h"  // last: Xlib's macros clash with gtest's templates

using namespace testsupport;

namespace {

QString binary(const QString &name) { return QStringLiteral(TURNELO_BINARY_DIR "/") + name; }

class DesktopRoom : public ::testing::Test {
protected:
    void SetUp() override
    {
        QString why;
        if (!XServer::installed("openbox")) GTEST_SKIP() << "openbox is not installed";
        ASSERT_TRUE(x.start(why)) << why.toStdString();
        ASSERT_TRUE(x.startManager("openbox", {"--sm-disable"}, why)) << why.toStdString();
        ASSERT_TRUE(bus.ok());
        upower = DbusMock::fromTemplate(bus, "upower", "org.freedesktop.UPower");
        ASSERT_TRUE(upower->ok()) << upower->errors().toStdString();
        screensaver = DbusMock::bare(bus, "org.freedesktop.ScreenSaver", "/ScreenSaver", "org.freedesktop.ScreenSaver");
        ASSERT_TRUE(screensaver->ok()) << screensaver->errors().toStdString();
        logind = DbusMock::fromTemplate(bus, "logind", "org.freedesktop.login1");
        ASSERT_TRUE(logind->ok()) << logind->errors().toStdString();

        scene = dir.filePath("scene");
        QProcess gen;
        gen.start(binary("tools/turnelo-gen-scene"),
                  {"--out", scene, "--width", "640", "--height", "360", "--framings", "wide"});
        ASSERT_TRUE(gen.waitForFinished(300000) && gen.exitCode() == 0) << gen.readAllStandardError().toStdString();
    }

    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = x.environment();
        const QProcessEnvironment busEnv = bus.env();
        for (const char *key : {"DBUS_SESSION_BUS_ADDRESS", "DBUS_SYSTEM_BUS_ADDRESS"})
            env.insert(key, busEnv.value(key));
        env.insert("TURNELO_SCENES_DIR", scene);
        env.insert("VK_ICD_FILENAMES", lavapipeIcd());
        env.remove("QT_QPA_PLATFORM");
        return env;
    }

    void defaults(const QStringList &args)
    {
        QProcess tool;
        tool.setProcessEnvironment(environment());
        tool.start(binary("tools/turnelo-defaults"), args);
        ASSERT_TRUE(tool.waitForFinished(30000) && tool.exitCode() == 0) << tool.readAllStandardError().toStdString();
    }

    void launch()
    {
        // A user past the welcome: its window would stand in front of the room.
        defaults({"write", "onboardingDone", "-bool", "true"});
        app.setProcessEnvironment(environment());
        app.setProcessChannelMode(QProcess::MergedChannels);
        app.start(binary("turnelo"), {"--music-setup-done"});
        ASSERT_TRUE(app.waitForStarted(10000));
    }

    QString log() const { return appLog.text(); }
    qsizetype waitForLine(const QString &text, qsizetype from = 0, int seconds = 60)
    {
        return appLog.waitForLine(text, from, seconds);
    }
    double fpsAfter(qsizetype from) { return appLog.fpsAfter(from); }
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
    size_t movingLayers() { return layers().size(); }
    QRect movingLayer() { return layers().empty() ? QRect() : layers().front(); }

    void TearDown() override
    {
        if (HasFailure()) std::cerr << "log:\n" << log().toStdString() << "\noutput:\n" << app.readAll().toStdString();
        if (app.state() == QProcess::Running) {
            app.terminate();
            if (!app.waitForFinished(10000)) app.kill();
        }
    }

    QTemporaryDir dir;
    XServer x{QStringLiteral("1280x720x24")};
    PrivateBus bus;
    std::unique_ptr<DbusMock> upower, screensaver, logind;
    QString scene;
    QProcess app;
    AppLog appLog{x.stateHome(), app};
};

// Mean and spread of the grey level over a rectangle of a screenshot, every fourth pixel.
std::pair<double, double> meanAndSpread(const QImage &img, QRect r)
{
    double sum = 0, sum2 = 0;
    int n = 0;
    for (int y = r.top(); y <= r.bottom(); y += 4)
        for (int xx = r.left(); xx <= r.right(); xx += 4) {
            const double v = qGray(img.pixel(xx, y));
            sum += v;
            sum2 += v * v;
            ++n;
        }
    const double mean = n ? sum / n : 0;
    return std::make_pair(mean, n ? std::sqrt(std::max(0.0, sum2 / n - mean * mean)) : 0.0);
}

TEST_F(DesktopRoom, ShowsTheRoomAndPausesWhenNobodyCanSeeIt)
{
    defaults({"write", "perfLogInterval", "-float", "1"});
    defaults({"write", "lightPreset", "-string", "dia"});
    // A weather service that refuses at once: every fetch leaves a line.
    defaults({"write", "weatherServiceURL", "-string", "http://127.0.0.1:9/"});
    launch();
    qsizetype at = waitForLine("Cena pronta", 0, 180);
    ASSERT_FALSE(HasFailure());
    // The line comes once the room is on the screen, not before.
    const QImage first = QImage::fromData(x.run("import", {"-window", "root", "png:-"}), "PNG");
    ASSERT_FALSE(first.isNull());
    EXPECT_GT(meanAndSpread(first, first.rect()).first, 8) << "\"Cena pronta\" over a black desktop";

    // Frames run (the software device compiles its shaders at the first one, which takes a while).
    static const QRegularExpression moving(QStringLiteral("Perf \\d+s: [1-9][0-9.]* fps"));
    EXPECT_TRUE(waitUntil([&] { return moving.match(log(), at).hasMatch(); }, std::chrono::seconds(90)))
        << "the room does not animate";

    // Players that answer late, flood the bus with album changes and name a FIFO as their cover:
    // the room keeps its frames through all of it and shows the last album once the flood ends.
    const QString fifo = dir.filePath("cover.fifo");
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    std::vector<std::unique_ptr<QProcess>> players;
    for (const QStringList &args :
         {QStringList{"--name", "slow", "--identity", "Slow", "--slow", "3000", "--track", "Slow|S|Slow album|200|1|"},
          QStringList{"--name", "spotify", "--identity", "Spotify", "--status", "Paused", "--flood", "400,4", "--track",
                      "Fifo|B|Fifo album|200|1|" + QUrl::fromLocalFile(fifo).toString()}}) {
        players.push_back(std::make_unique<QProcess>());
        players.back()->setProcessEnvironment(environment());
        players.back()->start(builtTool("turnelo-mpris-player"), args);
        ASSERT_TRUE(players.back()->waitForReadyRead(10000));
    }
    at = waitForLine("Capa Spotify: falhou " + fifo, at);
    const QDBusMessage play = bus.bus().call(QDBusMessage::createMethodCall(
        "org.mpris.MediaPlayer2.spotify", "/org/mpris/MediaPlayer2", "org.mpris.MediaPlayer2.Player", "Play"));
    ASSERT_EQ(play.type(), QDBusMessage::ReplyMessage);
    const qsizetype flood = at;
    at = waitForLine("Flood 1600 (Flood 1600)", at, 30);
    static const QRegularExpression perf(QStringLiteral("Perf \\d+s: ([0-9.]+) fps"));
    int perfLines = 0;
    for (auto it = perf.globalMatch(log().mid(flood, at - flood)); it.hasNext(); ++perfLines)
        EXPECT_GT(it.next().captured(1).toDouble(), 0.0) << "a second without frames in the flood";
    EXPECT_GE(perfLines, 1);
    EXPECT_NE(log().indexOf("] não respondeu", flood), -1) << "the slow player was waited for";
    for (auto &p : players) p->kill(), p->waitForFinished();

    at = log().size();
    const QRect layer = movingLayer();
    ASSERT_FALSE(layer.isEmpty()) << "no moving layer among the windows";

    // What a person sees: the room over the whole root window, the moving layer drawn too.
    QImage shot;
    std::pair<double, double> whole, moved;
    waitUntil(
        [&] {
            shot = QImage::fromData(x.run("import", {"-window", "root", "png:-"}), "PNG");
            if (shot.isNull()) return false;
            whole = meanAndSpread(shot, shot.rect());
            moved = meanAndSpread(shot, layer.intersected(shot.rect()));
            return whole.first > 8 && whole.second > 6 && moved.first > 8;
        },
        std::chrono::seconds(60));
    shot.save(QStringLiteral(TURNELO_BINARY_DIR "/desktop-room.png"));
    EXPECT_GT(whole.first, 8) << "the desktop is black";
    EXPECT_GT(whole.second, 6) << "the desktop is one flat colour";
    EXPECT_GT(moved.first, 8) << "the moving layer is black";

    // A window over the whole moving area pauses the frames; moved away, they resume.
    XClient blocker(x.display());  // plain opaque windows of another program
    ASSERT_TRUE(blocker.d);
    const Window over = blocker.makeWindow(QRect(0, 0, 1280, 720));
    at = waitForLine("Cena: área animada coberta por janelas → pausa", at);
    const qsizetype covered = waitForLine("Perf", waitForLine("Perf", at));  // a whole interval after
    EXPECT_EQ(fpsAfter(covered), 0.0) << "frames while covered";
    blocker.move(over, QRect(0, 0, 1280, std::max(1, layer.top() - 40)));
    at = waitForLine("Cena: área animada à vista → renderiza", at);

    // Two windows that leave one of the 25 sample points free: the room keeps animating.
    const int fifthW = layer.width() / 5, fifthH = layer.height() / 5;
    blocker.move(over, QRect(layer.left() + fifthW, 0, 1280 - layer.left() - fifthW, 720));
    const Window below = blocker.makeWindow(QRect(0, layer.top() + fifthH, 1280, 720 - layer.top() - fifthH));
    QThread::msleep(3000);
    EXPECT_EQ(log().indexOf("coberta por janelas", at), -1) << "paused with a sample point in sight";
    blocker.close(below);
    blocker.close(over);

    // The screen saver locks the screen.
    const QDBusMessage lock =
        screensaver->callMock("/ScreenSaver", "EmitSignal",
                              {QString(), QStringLiteral("ActiveChanged"), QStringLiteral("b"), QVariantList{true}});
    ASSERT_EQ(lock.type(), QDBusMessage::ReplyMessage) << lock.errorMessage().toStdString();
    at = waitForLine("Cena: screenIsLocked → pausa", at);
    screensaver->callMock("/ScreenSaver", "EmitSignal",
                          {QString(), QStringLiteral("ActiveChanged"), QStringLiteral("b"), QVariantList{false}});
    at = waitForLine("Cena: screenIsUnlocked → renderiza", at);

    // Woken from sleep, the weather is asked again at once, not after the 300 s retry.
    waitForLine("Clima: falhou", 0);
    const qsizetype beforeSleep = log().size();
    for (bool sleeping : {true, false}) {
        const QDBusMessage sleep =
            logind->callMock("/org/freedesktop/login1", "EmitSignal",
                             {"org.freedesktop.login1.Manager", "PrepareForSleep", "b", QVariantList{sleeping}});
        ASSERT_EQ(sleep.type(), QDBusMessage::ReplyMessage) << sleep.errorMessage().toStdString();
    }
    at = waitForLine("Clima: falhou", beforeSleep, 20);

    // Unplugged: the saver takes the room down to 15 frames a second.
    const QDBusMessage unplug =
        upower->setProperty("/org/freedesktop/UPower", "org.freedesktop.UPower", "OnBattery", true);
    ASSERT_EQ(unplug.type(), QDBusMessage::ReplyMessage) << unplug.errorMessage().toStdString();
    const qsizetype battery = waitForLine("Energia: bateria", at);
    at = waitForLine("Cena: modo economia ligado (15 fps, sem vapor e chuva)", at);
    EXPECT_EQ(log().indexOf("Energia: bateria", battery), -1) << "the battery line came twice";
    // The saver holds the steam still: its layer goes away.
    EXPECT_TRUE(waitUntil([&] { return movingLayers() == 1; }, std::chrono::seconds(20)))
        << "layers left: " << movingLayers();

    // A light change fades once the night is built: no picture on the way is darker than both
    // the day before and the night after.
    auto brightness = [&] {
        const QImage shot = QImage::fromData(x.run("import", {"-window", "root", "png:-"}), "PNG");
        return shot.isNull() ? -1.0 : meanAndSpread(shot, shot.rect()).first;
    };
    const double day = brightness();
    defaults({"write", "lightPreset", "-string", "noite"});
    std::vector<double> seen;
    QElapsedTimer fading;
    fading.start();
    qsizetype built = -1;
    while (fading.elapsed() < 60000 && (built < 0 || fading.elapsed() < 3000)) {
        seen.push_back(brightness());
        if (built < 0 && log().indexOf("noite montado", at) >= 0) {
            built = 1;
            fading.restart();
        }
        QThread::msleep(200);
    }
    ASSERT_GE(built, 0) << "the night was never built";
    const double night = brightness();
    EXPECT_LT(night, day) << "the night is not darker than the day";
    EXPECT_GE(*std::min_element(seen.begin(), seen.end()), std::min(day, night) - 2.0)
        << "a picture darker than both ends on the way from " << day << " to " << night;

    // A light plate damaged on disk: the reload ends in the plain turntable and the reason, and
    // the program goes on.
    QFile plate(scene + "/wide/light/room.exr");
    ASSERT_TRUE(plate.open(QIODevice::ReadWrite));
    ASSERT_TRUE(plate.resize(plate.size() / 2));
    plate.close();
    QFile manifest(scene + "/manifest.json");
    ASSERT_TRUE(manifest.open(QIODevice::ReadWrite));
    const QByteArray body = manifest.readAll();
    manifest.seek(0);
    manifest.write(body);
    manifest.close();
    at = waitForLine("Cena: carregando", at, 60);
    QElapsedTimer failing;
    failing.start();
    at = waitForLine("Cena indisponível: ", at, 60);
    EXPECT_LT(failing.elapsed(), 10000) << "the reason came late";
    EXPECT_TRUE(log().mid(at).section('\n', 0, 0).contains("room.exr")) << log().mid(at).toStdString();
    QThread::msleep(1000);
    EXPECT_EQ(app.state(), QProcess::Running);
}

TEST_F(DesktopRoom, AllScreensGetAWindowAndMainKeepsTheFirst)
{
    // Two monitors on one X screen, as a laptop with an external display.
    x.run("xrandr", {"--setmonitor", "left", "640/170x720/190+0+0", "default"});
    x.run("xrandr", {"--setmonitor", "right", "640/170x720/190+640+0", "none"});
    defaults({"write", "screens", "-string", "all"});
    launch();
    waitForLine("Cena pronta", 0, 180);
    ASSERT_FALSE(HasFailure());
    // The program's desktop windows.
    auto ours = [&] {
        QStringList list;
        const QString clients = QString::fromUtf8(x.run("xprop", {"-root", "_NET_CLIENT_LIST"}));
        static const QRegularExpression id(QStringLiteral("0x[0-9a-f]+"));
        for (auto it = id.globalMatch(clients); it.hasNext();) {
            const QString w = it.next().captured();
            const QString pid = QString::fromUtf8(x.run("xprop", {"-id", w, "_NET_WM_PID"}));
            const QString type = QString::fromUtf8(x.run("xprop", {"-id", w, "_NET_WM_WINDOW_TYPE"}));
            if (pid.trimmed().endsWith(" " + QString::number(app.processId())) &&
                type.contains("_NET_WM_WINDOW_TYPE_DESKTOP"))
                list << w;
        }
        list.sort();
        return list;
    };
    QStringList windows;
    waitUntil([&] { return (windows = ours()).size() == 2; }, std::chrono::seconds(30));
    ASSERT_EQ(windows.size(), 2) << windows.join(' ').toStdString();
    // Both screens on one device, the framing loaded once for both.
    EXPECT_EQ(log().count("Vulkan: dispositivo"), 1);
    EXPECT_EQ(log().count("montando presets"), 1);
    defaults({"write", "screens", "-string", "main"});
    QStringList after;
    waitUntil([&] { return (after = ours()).size() == 1; }, std::chrono::seconds(30));
    ASSERT_EQ(after.size(), 1) << after.join(' ').toStdString();
    EXPECT_TRUE(windows.contains(after.first())) << "the kept window was made anew";
    EXPECT_FALSE(log().contains("Cena indisponível"));

    // A second start reaches the running room instead of opening another one.
    QProcess second;
    second.setProcessEnvironment(environment());
    second.start(binary("turnelo"), {});
    ASSERT_TRUE(second.waitForFinished(30000));
    EXPECT_EQ(second.exitCode(), 0);
    waitForLine("Turnelo: aberta de novo");
    EXPECT_EQ(ours().size(), 1) << "a second room opened";
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
    scene = dir.filePath("empty");  // neither a development scene nor an installed one
    QDir().mkpath(scene);
    // A system tray of the kind bare window managers use (XEmbed).
    if (!XServer::installed("trayer")) GTEST_SKIP() << "trayer is not installed";
    x.launch("trayer", {"--edge", "top", "--align", "right", "--widthtype", "request", "--height", "24"});
    launch();
    waitForLine("Cena indisponível: nenhuma cena instalada em", 0, 120);
    ASSERT_FALSE(HasFailure());
    // The plain turntable is drawn by the painter: its plinth and record show on the desktop.
    QImage shot;
    ASSERT_TRUE(waitUntil(
        [&] {
            shot = QImage::fromData(x.run("import", {"-window", "root", "png:-"}), "PNG");
            return !shot.isNull() && qGray(shot.pixel(shot.width() / 2, shot.height() / 2)) != qGray(shot.pixel(4, 4));
        },
        std::chrono::seconds(30)))
        << "nothing drawn on the desktop";
    shot.save(QStringLiteral(TURNELO_BINARY_DIR "/desktop-turntable.png"));

    // The tray icon sits in the tray; its menu's first entry hides the room.
    // Where the icon sits: the first window of ours under the tray's panel, absolute corner.
    auto trayIcon = [&]() -> std::optional<QPoint> {
        const QStringList tree = QString::fromUtf8(x.run("xwininfo", {"-root", "-tree"})).split('\n');
        static const QRegularExpression corner(QStringLiteral("\\+(\\d+)\\+(\\d+)\\s*$"));
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
    QProcess read;
    read.setProcessEnvironment(environment());
    EXPECT_TRUE(waitUntil(
        [&] {
            read.start(binary("tools/turnelo-defaults"), {"read", "showTurntable"});
            return read.waitForFinished(10000) && read.readAllStandardOutput().trimmed() == "false";
        },
        std::chrono::seconds(20)))
        << "the menu did not hide the room";
}

}  // namespace
