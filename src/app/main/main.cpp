// The turnelo executable: the room on the desktop; "turnelo render …" renders one frame of a
// scene folder to a PNG.

#include "app/AppDelegate.h"
#include "app/SingleInstance.h"
#include "core/app/CommandLine.h"
#include "core/app/WindowSystemChoice.h"
#include "core/scene/SceneLocation.h"
#include "platform/wayland/WaylandConnection.h"
#include "scene/OfflineRender.h"
#include "ui/AppIcon.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QTextStream>
#include <optional>
#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace {

// The options of "turnelo render", declared on its command line.
struct RenderOptions {
    QCommandLineOption framing{"framing", "Framing name.", "name"};
    QCommandLineOption size{"size", "Output size WxH (default 1920x1080).", "WxH", "1920x1080"};
    QCommandLineOption time{"time", "Local time HH:MM for the clock blend (default 12:00).", "HH:MM", "12:00"};
    QCommandLineOption preset{"preset", "A fixed light preset instead of the clock.", "name"};
    QCommandLineOption playing{"playing", "Music plays."};
    QCommandLineOption album{"album", "Album title.", "text"};
    QCommandLineOption artist{"artist", "Artist.", "text"};
    QCommandLineOption title{"title", "Track title.", "text"};
    QCommandLineOption track{"track", "Track number.", "n", "0"};
    QCommandLineOption tracks{"tracks", "Track count.", "n", "0"};
    QCommandLineOption duration{"duration", "Track duration in seconds.", "s", "0"};
    QCommandLineOption position{"position", "Position in the track in seconds.", "s", "0"};
    QCommandLineOption cover{"cover", "Cover image (default: the placeholder cover).", "file"};
    QCommandLineOption stackCover{"stack-cover",
                                  "Cover on top of the record stack, an album played before "
                                  "(default: the placeholder cover).",
                                  "file"};
    QCommandLineOption rain{"rain", "Rain intensity 0…1 (default 0).", "x", "0"};
    QCommandLineOption noSteam{"no-steam", "Steam off."};
    QCommandLineOption noRecord{"no-record", "Live record off (fxRecord)."};
    QCommandLineOption noBounce{"no-bounce", "Cover bounce off (fxBounce)."};
    QCommandLineOption noStack{"no-stack", "Record stack off (fxStack)."};
    QCommandLineOption noPanel{"no-panel", "LEDs and strobe off (fxPanel)."};
    QCommandLineOption noWeather{"no-weather", "Rain off (fxWeather)."};
    QCommandLineOption media{"media-time", "Media time in seconds (default 30).", "s", "30"};

    explicit RenderOptions(QCommandLineParser &p)
    {
        p.addPositionalArgument("scene", "Scene folder (holds manifest.json).");
        p.addPositionalArgument("output", "PNG file to write.");
        p.addOptions({framing,  size,     time,     preset,   playing,   album,      artist, title,
                      track,    tracks,   duration, position, cover,     stackCover, rain,   noSteam,
                      noRecord, noBounce, noStack,  noPanel,  noWeather, media});
    }
};

int renderCommand(const QCommandLineParser &p, const RenderOptions &r)
{
    const QStringList pos = p.positionalArguments();
    QTextStream err(stderr);
    if (pos.size() != 2) {
        err << "usage: turnelo render [options] <scene> <output.png>\n";
        return 2;
    }
    OfflineRender::Options o;
    o.sceneDir = pos[0];
    o.output = pos[1];
    o.framing = p.value(r.framing);
    const QStringList wh = p.value(r.size).split('x');
    if (wh.size() != 2 || wh[0].toInt() <= 0 || wh[1].toInt() <= 0) {
        err << "turnelo render: --size wants WIDTHxHEIGHT in pixels, both above 0 (got \"" << p.value(r.size)
            << "\")\n";
        return 2;
    }
    o.width = wh[0].toInt();
    o.height = wh[1].toInt();
    const QTime t = QTime::fromString(p.value(r.time), "H:mm");
    if (!t.isValid()) {
        err << "turnelo render: --time wants a local time as HH:MM (got \"" << p.value(r.time) << "\")\n";
        return 2;
    }
    o.localTime = QDateTime(QDate(2024, 6, 1), t);
    if (p.isSet(r.preset)) o.preset = p.value(r.preset);
    o.playing = p.isSet(r.playing);
    o.album = p.value(r.album);
    o.artist = p.value(r.artist);
    o.title = p.value(r.title);
    o.trackNumber = p.value(r.track).toInt();
    o.trackCount = p.value(r.tracks).toInt();
    o.duration = p.value(r.duration).toDouble();
    o.position = p.value(r.position).toDouble();
    o.coverImage = p.value(r.cover);
    o.stackCoverImage = p.value(r.stackCover);
    o.rain = p.value(r.rain).toDouble();
    o.steam = !p.isSet(r.noSteam);
    o.fxRecord = !p.isSet(r.noRecord);
    o.fxBounce = !p.isSet(r.noBounce);
    o.fxStack = !p.isSet(r.noStack);
    o.fxPanel = !p.isSet(r.noPanel);
    o.fxWeather = !p.isSet(r.noWeather);
    o.mediaTime = p.value(r.media).toDouble();
    const QString error = OfflineRender::render(o);
    if (!error.isEmpty()) {
        err << "turnelo render: " << error << "\n";
        return 1;
    }
    return 0;
}

// Without a display the room cannot be on a desktop: say so and show what it would look like.
int renderInstead()
{
    QTextStream err(stderr);
    const auto scene = SceneLocation::resolve();
    if (!scene) {
        err << "turnelo: no display (neither WAYLAND_DISPLAY nor DISPLAY is usable) and no scene installed in "
            << SceneLocation::installedRoot() << "\n";
        return 1;
    }
    OfflineRender::Options o;
    o.sceneDir = scene->root;
    o.output = QDir::current().filePath("turnelo-room.png");
    o.localTime = QDateTime::currentDateTime();
    err << "turnelo: no display (neither WAYLAND_DISPLAY nor DISPLAY is usable); rendering the room to " << o.output
        << " instead\n";
    err.flush();
    const QString error = OfflineRender::render(o);
    if (!error.isEmpty()) {
        err << "turnelo render: " << error << "\n";
        return 1;
    }
    return 0;
}

int runRoom(QApplication &app, bool markMusicSetupDone, WindowSystemChoice::Kind windowSystem)
{
    SingleInstance instance(SingleInstance::defaultName());
    if (instance.alreadyRunning()) {
        QTextStream(stderr) << "turnelo: already running; asked it to show the room\n";
        return 0;
    }
    // The launcher's name, so the desktop ties the windows to the menu entry and its icon.
    QGuiApplication::setDesktopFileName(QStringLiteral("turnelo"));
    QApplication::setWindowIcon(AppIcon::icon());
    AppDelegate::Options options;
    options.markMusicSetupDone = markMusicSetupDone;
    options.windowSystem = windowSystem;
    AppDelegate delegate(options);
    instance.onActivated = [&delegate] { delegate.reopen(); };
    delegate.start();
    return app.exec();
}

}  // namespace

int main(int argc, char **argv)
{
#ifdef __GLIBC__
    // glibc raises its mmap threshold to the largest block freed (up to 32 MB), after which the
    // big buffers of a load or a base readback come from the heap and stay resident once freed:
    // at 4K that kept about 50 MB. A fixed threshold hands every large block back.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
#endif
    const QStringList arguments = CommandLine::arguments(argc, argv);
    const bool render = arguments.size() > 1 && arguments[1] == "render";
    // "turnelo render …" reads as a program of its own, without the verb.
    const auto ownLine = [render](QStringList line) {
        if (render) line.removeAt(1);
        return line;
    };
    CommandLine line(render ? QStringLiteral("turnelo render") : QStringLiteral("turnelo"),
                     render ? QStringLiteral("Renders one frame of a scene folder to a PNG.")
                            : QStringLiteral("Turnelo: a photoreal room with a record player on the desktop. "
                                             "Without a display it renders the room to turnelo-room.png instead. "
                                             "\"turnelo render --help\" tells how to render a scene to a PNG."));
    std::optional<RenderOptions> renderOptions;
    const QCommandLineOption musicDone(
        "music-setup-done", "Follow the music players from now on, as the onboarding's music step does (stored).");
    if (render)
        renderOptions.emplace(line.parser);
    else
        line.parser.addOption(musicDone);
    // Answered before anything opens a display, a bus or a device.
    if (const auto answered = line.parse(ownLine(arguments), true)) return *answered;

    using WindowSystemChoice::Kind;
    Kind windowSystem = Kind::none;
    if (!render) {
        WindowSystemChoice::Environment env;
        env.forced = qEnvironmentVariable("TURNELO_PLATFORM");
        env.x11Display = !qEnvironmentVariable("DISPLAY").isEmpty();
        if (!qEnvironmentVariable("WAYLAND_DISPLAY").isEmpty() && env.forced != QLatin1String("x11")) {
            const std::optional<bool> layerShell = WaylandConnection::offersLayerShell();
            env.waylandReachable = layerShell.has_value();
            env.layerShell = layerShell.value_or(false);
        }
        windowSystem = WindowSystemChoice::choose(env);
    }
    const bool display = windowSystem != Kind::none;
    // Offline work needs no display. Qt's windows (popover, settings, welcome) go on the same
    // window system as the room.
    if (!display && !qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    if (windowSystem == Kind::x11) qputenv("QT_QPA_PLATFORM", "xcb");
    if (windowSystem == Kind::wayland || windowSystem == Kind::waylandWithoutBackground)
        qputenv("QT_QPA_PLATFORM", "wayland");
    // On a machine without a GPU the software device draws the room with one thread, so the room
    // never takes more than one core however much it would like to draw; a real device ignores it.
    if (display && !qEnvironmentVariableIsSet("LP_NUM_THREADS")) qputenv("LP_NUM_THREADS", "1");
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    // The application object has taken its own options (-session, -display, …) out of the line.
    if (const auto failed = line.parse(ownLine(app.arguments()))) return *failed;
    if (render) return renderCommand(line.parser, *renderOptions);
    if (!display) return renderInstead();
    return runRoom(app, line.parser.isSet(musicDone), windowSystem);
}
