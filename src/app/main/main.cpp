// The turnelo executable: the room on the desktop; "turnelo render …" renders one frame of a
// scene folder to a PNG.

#include "app/AppDelegate.h"
#include "app/SingleInstance.h"
#include "core/scene/SceneLocation.h"
#include "scene/OfflineRender.h"
#include "ui/AppIcon.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QTextStream>

static int renderCommand(const QStringList &arguments) {
    QCommandLineParser p;
    p.setApplicationDescription("Renders one frame of a scene folder to a PNG.");
    p.addHelpOption();
    p.addPositionalArgument("scene", "Scene folder (holds manifest.json).");
    p.addPositionalArgument("output", "PNG file to write.");
    const QCommandLineOption framing("framing", "Framing name.", "name");
    const QCommandLineOption size("size", "Output size WxH (default 1920x1080).", "WxH", "1920x1080");
    const QCommandLineOption time("time", "Local time HH:MM for the clock blend (default 12:00).", "HH:MM", "12:00");
    const QCommandLineOption preset("preset", "A fixed light preset instead of the clock.", "name");
    const QCommandLineOption playing("playing", "Music plays.");
    const QCommandLineOption album("album", "Album title.", "text");
    const QCommandLineOption artist("artist", "Artist.", "text");
    const QCommandLineOption title("title", "Track title.", "text");
    const QCommandLineOption track("track", "Track number.", "n", "0");
    const QCommandLineOption tracks("tracks", "Track count.", "n", "0");
    const QCommandLineOption duration("duration", "Track duration in seconds.", "s", "0");
    const QCommandLineOption position("position", "Position in the track in seconds.", "s", "0");
    const QCommandLineOption cover("cover", "Cover image (default: the placeholder cover).", "file");
    const QCommandLineOption stackCover("stack-cover", "Cover on top of the record stack, an album played before "
                                        "(default: the placeholder cover).", "file");
    const QCommandLineOption rain("rain", "Rain intensity 0…1 (default 0).", "x", "0");
    const QCommandLineOption noSteam("no-steam", "Steam off.");
    const QCommandLineOption noRecord("no-record", "Live record off (fxRecord).");
    const QCommandLineOption noBounce("no-bounce", "Cover bounce off (fxBounce).");
    const QCommandLineOption noStack("no-stack", "Record stack off (fxStack).");
    const QCommandLineOption noPanel("no-panel", "LEDs and strobe off (fxPanel).");
    const QCommandLineOption noWeather("no-weather", "Rain off (fxWeather).");
    const QCommandLineOption media("media-time", "Media time in seconds (default 30).", "s", "30");
    p.addOptions({framing, size, time, preset, playing, album, artist, title, track, tracks, duration, position,
                  cover, stackCover, rain, noSteam, noRecord, noBounce, noStack, noPanel, noWeather, media});
    p.process(arguments);
    const QStringList pos = p.positionalArguments();
    QTextStream err(stderr);
    if (pos.size() != 2) {
        err << "usage: turnelo render [options] <scene> <output.png>\n";
        return 2;
    }
    OfflineRender::Options o;
    o.sceneDir = pos[0];
    o.output = pos[1];
    o.framing = p.value(framing);
    const QStringList wh = p.value(size).split('x');
    if (wh.size() != 2 || wh[0].toInt() <= 0 || wh[1].toInt() <= 0) {
        err << "bad --size\n";
        return 2;
    }
    o.width = wh[0].toInt();
    o.height = wh[1].toInt();
    const QTime t = QTime::fromString(p.value(time), "H:mm");
    if (!t.isValid()) {
        err << "bad --time\n";
        return 2;
    }
    o.localTime = QDateTime(QDate(2024, 6, 1), t);
    if (p.isSet(preset)) o.preset = p.value(preset);
    o.playing = p.isSet(playing);
    o.album = p.value(album);
    o.artist = p.value(artist);
    o.title = p.value(title);
    o.trackNumber = p.value(track).toInt();
    o.trackCount = p.value(tracks).toInt();
    o.duration = p.value(duration).toDouble();
    o.position = p.value(position).toDouble();
    o.coverImage = p.value(cover);
    o.stackCoverImage = p.value(stackCover);
    o.rain = p.value(rain).toDouble();
    o.steam = !p.isSet(noSteam);
    o.fxRecord = !p.isSet(noRecord);
    o.fxBounce = !p.isSet(noBounce);
    o.fxStack = !p.isSet(noStack);
    o.fxPanel = !p.isSet(noPanel);
    o.fxWeather = !p.isSet(noWeather);
    o.mediaTime = p.value(media).toDouble();
    const QString error = OfflineRender::render(o);
    if (!error.isEmpty()) {
        err << "turnelo render: " << error << "\n";
        return 1;
    }
    return 0;
}

// Without a display the room cannot be on a desktop: say so and show what it would look like.
static int renderInstead() {
    QTextStream err(stderr);
    const auto scene = SceneLocation::resolve();
    if (!scene) {
        err << "turnelo: no display (DISPLAY is not set) and no scene installed in "
            << SceneLocation::installedRoot() << "\n";
        return 1;
    }
    OfflineRender::Options o;
    o.sceneDir = scene->root;
    o.output = QDir::current().filePath("turnelo-room.png");
    o.localTime = QDateTime::currentDateTime();
    err << "turnelo: no display (DISPLAY is not set); rendering the room to " << o.output << " instead\n";
    err.flush();
    const QString error = OfflineRender::render(o);
    if (!error.isEmpty()) {
        err << "turnelo render: " << error << "\n";
        return 1;
    }
    return 0;
}

static int runRoom(QApplication &app) {
    QCommandLineParser p;
    p.setApplicationDescription("Turnelo: a photoreal room with a record player on the desktop.");
    p.addHelpOption();
    const QCommandLineOption musicDone("music-setup-done",
                                       "Follow the music players from now on, as the onboarding's music step does (stored).");
    p.addOption(musicDone);
    p.process(app);
    SingleInstance instance(SingleInstance::defaultName());
    if (instance.alreadyRunning()) {
        QTextStream(stderr) << "turnelo: already running; asked it to show the room\n";
        return 0;
    }
    // The launcher's name, so the desktop ties the windows to the menu entry and its icon.
    QGuiApplication::setDesktopFileName(QStringLiteral("turnelo"));
    QApplication::setWindowIcon(AppIcon::icon());
    AppDelegate::Options options;
    options.markMusicSetupDone = p.isSet(musicDone);
    AppDelegate delegate(options);
    instance.onActivated = [&delegate] { delegate.reopen(); };
    delegate.start();
    return app.exec();
}

int main(int argc, char **argv) {
    const bool render = argc > 1 && QByteArray(argv[1]) == "render";
    const bool display = qEnvironmentVariableIsSet("DISPLAY") && !qEnvironmentVariable("DISPLAY").isEmpty();
    // Offline work needs no display; the desktop windows are X11 windows.
    if ((render || !display) && !qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
    if (!render && display) qputenv("QT_QPA_PLATFORM", "xcb");
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QStringList args = app.arguments();
    if (render) {
        args.removeAt(1);
        return renderCommand(args);
    }
    if (!display) return renderInstead();
    return runRoom(app);
}
