// The real program on the demo scene under Xvfb with openbox, or under a headless sway with
// --wayland (a private bus with a mocked screen saver and a playing test player either way): frames
// per second and process CPU while the record turns, while a window covers the room and while the
// screen is locked, and resident memory. Figures only; nothing here passes or fails.
//
//   desktop_bench [--seconds N] [--size WxH] [--scene DIR | --generated] [--wayland] [--shot FILE]
//       [--cache DIR]
// The room that ships (scenes/room) unless told otherwise; --generated paints the synthetic room
// at the screen's size in a temporary folder first (a minute or two).

#include "PrivateBus.h"
#include "SwayServer.h"
#include "XServer.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <unistd.h>

using namespace testsupport;

namespace {

QString built(const QString &name) { return QStringLiteral(TURNELO_BINARY_DIR "/") + name; }

// User + system CPU seconds of a process.
double cpuSeconds(qint64 pid)
{
    QFile f(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!f.open(QIODevice::ReadOnly)) return -1;
    const QByteArray text = f.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return (fields.value(11).toDouble() + fields.value(12).toDouble()) / double(sysconf(_SC_CLK_TCK));
}

// Resident memory in MB: the whole, its anonymous part (heap, and on the software device the
// device memory and swapchain images too) and its file-backed part (libraries).
struct Resident {
    double total = -1, anonymous = -1, files = -1;
};
Resident resident(qint64 pid)
{
    QFile f(QStringLiteral("/proc/%1/status").arg(pid));
    Resident r;
    if (!f.open(QIODevice::ReadOnly)) return r;
    for (const QByteArray &line : f.readAll().split('\n')) {
        const double mb = line.mid(line.indexOf(':') + 1).trimmed().split(' ').value(0).toDouble() / 1024.0;
        if (line.startsWith("VmRSS:")) r.total = mb;
        if (line.startsWith("RssAnon:")) r.anonymous = mb;
        if (line.startsWith("RssFile:")) r.files = mb;
    }
    return r;
}

// Files in the software driver's own shader cache: it writes one for each shader it compiles,
// so a start that adds none compiled nothing. -1 where there is no such cache (another driver).
int driverCacheEntries(const QString &cacheHome)
{
    const QDir dir(cacheHome + "/mesa_shader_cache");
    if (!dir.exists()) return -1;
    int n = 0;
    for (QDirIterator it(dir.path(), QDir::Files, QDirIterator::Subdirectories); it.hasNext(); it.next()) ++n;
    return n;
}

struct Phase {
    double fps = -1, cpu = -1;
    Resident rss;
};

// The desktop the room runs on: its clients' environment, where the program's log goes, and how a
// window is made to cover the whole screen and taken away again.
struct Desktop {
    QProcessEnvironment env;
    QString stateHome;
    std::function<bool()> cover;
    std::function<void()> uncover;
};

bool startX11(XServer &x, const QString &size, Desktop &d, QString &why)
{
    if (!x.start(why) || !x.startManager("openbox", {"--sm-disable"}, why)) return false;
    d.env = x.environment();
    d.stateHome = d.env.value("XDG_STATE_HOME");
    static QProcess *window = nullptr;
    d.cover = [&x, size] {
        window = &x.launch("xmessage", {"-geometry", size + "+0+0", "covering window"});
        return true;
    };
    d.uncover = [] {
        window->terminate();
        window->waitForFinished(5000);
    };
    return true;
}

bool startSway(SwayServer &sway, QProcess &terminal, const QString &size, Desktop &d, QString &why)
{
    // No swaybg: a background program would be stacked over the room.
    if (!sway.start("swaybg_command -\noutput * resolution " + size + "\n", why)) return false;
    d.env = sway.environment();
    d.stateHome = sway.stateHome();
    d.cover = [&sway, &terminal, env = d.env] {
        terminal.setProcessEnvironment(env);
        terminal.setStandardOutputFile(QProcess::nullDevice());
        terminal.start("foot", {"--app-id", "cover", "sleep", "3600"});
        for (int i = 0; i < 300 && !sway.msg({"-t", "get_tree"}).contains("\"cover\""); ++i) QThread::msleep(100);
        return !sway.msg({"[app_id=\"cover\"]", "fullscreen", "enable"}).isEmpty();
    };
    d.uncover = [&terminal] {
        terminal.terminate();
        terminal.waitForFinished(5000);
    };
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser p;
    const QCommandLineOption secondsOpt("seconds", "Seconds per phase.", "N", "20");
    const QCommandLineOption sizeOpt("size", "Screen size.", "WxH", "1920x1080");
    const QCommandLineOption sceneOpt("scene", "Scene folder.", "dir", TURNELO_SOURCE_DIR "/scenes/room");
    const QCommandLineOption generatedOpt("generated", "The synthetic room at the screen's size.");
    const QCommandLineOption waylandOpt("wayland", "Under a headless sway instead of Xvfb.");
    const QCommandLineOption noSteamOpt("no-steam", "Steam off: the record and arm layer alone.");
    const QCommandLineOption shotOpt("shot", "Save the screen as PNG at the end of the animating phase.", "file");
    const QCommandLineOption cacheOpt("cache",
                                      "Keep the program's caches (pipelines, the driver's shaders) in this folder, so "
                                      "that a second run starts warm.",
                                      "dir");
    const QCommandLineOption timeOpt("time",
                                     "The program's local clock reads this time (through its time zone), for "
                                     "example 18:40, where the afternoon and night lights blend.",
                                     "HH:MM");
    const QCommandLineOption logOpt("log", "Copy the program's log to this file at the end.", "file");
    p.addOptions(
        {secondsOpt, sizeOpt, sceneOpt, generatedOpt, waylandOpt, noSteamOpt, shotOpt, cacheOpt, timeOpt, logOpt});
    p.addHelpOption();
    p.process(app);
    const int seconds = std::max(4, p.value(secondsOpt).toInt());
    const QString size = p.value(sizeOpt);

    QTemporaryDir dir;
    QString scene = p.value(sceneOpt);
    if (p.isSet(generatedOpt)) {
        scene = dir.filePath("scene");
        const QStringList wh = size.split('x');
        std::printf("generating the demo scene at %s…\n", qPrintable(size));
        std::fflush(stdout);
        QProcess gen;
        gen.start(built("tools/turnelo-gen-scene"),
                  {"--out", scene, "--width", wh.value(0), "--height", wh.value(1), "--framings", "wide"});
        if (!gen.waitForFinished(-1) || gen.exitCode() != 0) {
            std::fprintf(stderr, "scene generator failed\n");
            return 1;
        }
    }

    const bool wayland = p.isSet(waylandOpt);
    XServer x(size + "x24");
    SwayServer sway;
    QProcess terminal;
    Desktop desktop;
    QString why;
    if (wayland ? !startSway(sway, terminal, size, desktop, why) : !startX11(x, size, desktop, why)) {
        std::fprintf(stderr, "no %s: %s\n", wayland ? "sway" : "X server", qPrintable(why));
        return 1;
    }
    PrivateBus bus;
    auto screensaver =
        DbusMock::bare(bus, "org.freedesktop.ScreenSaver", "/ScreenSaver", "org.freedesktop.ScreenSaver");
    if (!bus.ok() || !screensaver->ok()) {
        std::fprintf(stderr, "no private bus or screen saver mock\n");
        return 1;
    }
    QProcessEnvironment env = desktop.env;
    for (const char *key : {"DBUS_SESSION_BUS_ADDRESS", "DBUS_SYSTEM_BUS_ADDRESS"})
        env.insert(key, bus.env().value(key));
    env.insert("TURNELO_SCENES_DIR", scene);
    if (p.isSet(cacheOpt)) env.insert("XDG_CACHE_HOME", QDir(p.value(cacheOpt)).absolutePath());
    if (p.isSet(timeOpt)) {
        const QTime wanted = QTime::fromString(p.value(timeOpt), "HH:mm");
        if (!wanted.isValid()) {
            std::fprintf(stderr, "--time takes HH:MM\n");
            return 1;
        }
        const QTime utc = QDateTime::currentDateTimeUtc().time();
        // Local time is UTC plus this many minutes; a POSIX zone's offset has the other sign.
        int ahead = (wanted.msecsSinceStartOfDay() / 60000 - utc.msecsSinceStartOfDay() / 60000 + 1440) % 1440;
        if (ahead > 720) ahead -= 1440;
        env.insert("TZ", QStringLiteral("BENCH%1%2:%3")
                             .arg(ahead > 0 ? '-' : '+')
                             .arg(std::abs(ahead) / 60)
                             .arg(std::abs(ahead) % 60, 2, 10, QLatin1Char('0')));
    }
    if (!env.contains("VK_ICD_FILENAMES") && !lavapipeIcd().isEmpty() &&
        !qEnvironmentVariableIsSet("TURNELO_BENCH_GPU"))
        env.insert("VK_ICD_FILENAMES", lavapipeIcd());

    auto run = [&](const QString &program, const QStringList &args) {
        QProcess tool;
        tool.setProcessEnvironment(env);
        tool.start(program, args);
        tool.waitForFinished(30000);
    };
    // About four performance lines a phase: a phase averages the lines that fall inside it, and
    // writing them costs little next to what a hidden room is meant to cost.
    run(built("tools/turnelo-defaults"), {"write", "perfLogInterval", "-float", QString::number(seconds / 4.0)});
    if (p.isSet(noSteamOpt)) run(built("tools/turnelo-defaults"), {"write", "steam", "-bool", "false"});
    // The welcome would stand over the room.
    run(built("tools/turnelo-defaults"), {"write", "onboardingDone", "-bool", "true"});

    QProcess player;
    player.setProcessEnvironment(env);
    player.start(built("tools/turnelo-mpris-player"), {"--name", "bench", "--identity", "Bench", "--status", "Playing",
                                                       "--track", "Side A|Turnelo|Demo|600|2|"});
    QProcess room;
    room.setProcessEnvironment(env);
    room.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    const QString cacheHome = env.value("XDG_CACHE_HOME", env.value("HOME") + "/.cache");
    const int cachedAtStart = std::max(0, driverCacheEntries(cacheHome));
    QElapsedTimer sinceStart;
    sinceStart.start();
    room.start(built("turnelo"), {"--music-setup-done"});
    if (!room.waitForStarted(10000)) return 1;
    const qint64 pid = room.processId();
    const QString logPath = desktop.stateHome + "/Turnelo Dev.log";
    auto log = [&] {
        QFile f(logPath);
        return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
    };
    auto waitFor = [&](const QString &text, qsizetype from, int limitSeconds) {
        for (int i = 0; i < limitSeconds * 10; ++i) {
            const qsizetype at = log().indexOf(text, from);
            if (at >= 0) return at + text.size();
            QThread::msleep(100);
        }
        return qsizetype(-1);
    };
    if (waitFor("Cena pronta", 0, 600) < 0) {
        std::fprintf(stderr, "the room did not come up:\n%s\n", qPrintable(log()));
        return 1;
    }
    const double toRoom = sinceStart.elapsed() / 1000.0;
    const int cachedAtRoom = driverCacheEntries(cacheHome);
    // The software device compiles its shaders at the first frames: wait for frames to flow.
    static const QRegularExpression perf(
        QStringLiteral("Perf \\d+s: ([0-9.]+) fps, CPU [0-9.]+%, GPU ([0-9.]+) ms/quadro \\([0-9.]+% ocupada\\), "
                       "footprint -?\\d+ MB, (\\w+).*Vulkan total (\\d+) MB"));
    for (int i = 0; i < 600; ++i) {
        QRegularExpressionMatch last;
        for (auto it = perf.globalMatch(log()); it.hasNext();) last = it.next();
        if (last.hasMatch() && last.captured(1).toDouble() > 0) break;
        QThread::msleep(500);
    }
    auto measure = [&](const char *name) {
        // The change settles, and the first performance line after it, which spans it, is left out.
        QThread::msleep(ulong(1000 * (2 + seconds / 4.0)));
        const qsizetype from = log().size();
        const double cpu0 = cpuSeconds(pid);
        QThread::sleep(uint(seconds));
        const double cpu1 = cpuSeconds(pid);
        const QString stretch = log().mid(from);
        Phase ph;
        ph.cpu = (cpu1 - cpu0) / seconds * 100.0;
        ph.rss = resident(pid);
        double fps = 0, gpu = 0, vulkan = -1;
        int lines = 0, gpuLines = 0;
        QString state;
        for (auto it = perf.globalMatch(stretch); it.hasNext();) {
            const auto m = it.next();
            fps += m.captured(1).toDouble();
            if (m.captured(2).toDouble() > 0) {
                gpu += m.captured(2).toDouble();
                ++gpuLines;
            }
            state = m.captured(3);
            vulkan = m.captured(4).toDouble();
            ++lines;
        }
        ph.fps = lines ? fps / lines : -1;
        std::printf("%-10s fps %6.1f   CPU %7.2f%% of a core   GPU %8.3f ms/frame   resident %6.1f MB (anonymous %.1f, "
                    "files %.1f; Vulkan allocations %.0f)   (%s)\n",
                    name, ph.fps, ph.cpu, gpuLines ? gpu / gpuLines : 0.0, ph.rss.total, ph.rss.anonymous, ph.rss.files,
                    vulkan, qPrintable(state));
        std::fflush(stdout);
        return ph;
    };

    std::printf("%s on a %s screen (%s), %d s per phase, device %s\n", qPrintable(scene), qPrintable(size),
                wayland ? "sway" : "Xvfb", seconds, env.contains("VK_ICD_FILENAMES") ? "lavapipe" : "default");
    std::printf("start to the room on screen (\"Cena pronta\"): %.1f s\n", toRoom);
    const Phase animating = measure("animating");
    if (const int cachedNow = driverCacheEntries(cacheHome); cachedNow >= 0)
        std::printf("shaders the driver compiled (new entries in its cache): %d by the room on screen, %d by the end "
                    "of animating\n",
                    cachedAtRoom - cachedAtStart, cachedNow - cachedAtStart);
    if (p.isSet(shotOpt)) {
        const QImage shot = wayland ? sway.screenshot() : x.screenshot();
        if (!shot.save(p.value(shotOpt))) std::fprintf(stderr, "could not save %s\n", qPrintable(p.value(shotOpt)));
    }
    if (!desktop.cover() || waitFor("coberta por janelas", 0, 30) < 0)
        std::fprintf(stderr, "the covering window did not pause the room\n");
    const Phase covered = measure("covered");
    desktop.uncover();
    waitFor("à vista → renderiza", 0, 30);
    screensaver->callMock("/ScreenSaver", "EmitSignal",
                          {QString(), QStringLiteral("ActiveChanged"), QStringLiteral("b"), QVariantList{true}});
    waitFor("screenIsLocked", 0, 30);
    const Phase locked = measure("locked");
    std::printf("covered/animating CPU ratio %.4f, locked/animating %.4f; goal: 0 fps and under 0.1%% of a core "
                "when nobody can see the room, at most 200 MB resident at 4K\n",
                animating.cpu > 0 ? covered.cpu / animating.cpu : 0,
                animating.cpu > 0 ? locked.cpu / animating.cpu : 0);
    room.terminate();
    room.waitForFinished(10000);
    if (p.isSet(logOpt)) {
        QFile out(p.value(logOpt));
        if (!out.open(QIODevice::WriteOnly) || out.write(log().toUtf8()) < 0)
            std::fprintf(stderr, "could not write %s\n", qPrintable(p.value(logOpt)));
    }
    player.terminate();
    player.waitForFinished(5000);
    return 0;
}
