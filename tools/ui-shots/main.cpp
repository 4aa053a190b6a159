// turnelo-ui-shots: PNG pictures of the tray popover (idle and playing), each settings tab and
// each onboarding step, built over real settings, player state and scene status.
//
//   turnelo-ui-shots --out DIR [--scene DIR]
//
// Settings go to a private file; the Desktop tab reads Xfce's settings (xfconf on the session
// bus); with --scene the room's manifest feeds the light dial and the
// framing tiles, and the welcome picture is rendered from it.

#include "core/app/Settings.h"
#include "core/environment/DesktopCleaner.h"
#include "core/environment/PowerMonitor.h"
#include "core/environment/ProcessLauncher.h"
#include "core/music/CoverArt.h"
#include "core/music/MusicPermission.h"
#include "core/music/PlayerState.h"
#include "core/scene/PlateManifest.h"
#include "core/scene/SceneFiles.h"
#include "core/scene/SceneStatus.h"
#include "platform/linux/LinuxDesktopPreferences.h"
#include "scene/OfflineRender.h"
#include "ui/OnboardingWindow.h"
#include "ui/PopoverWindow.h"
#include "ui/SettingsWindow.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFile>
#include <QPainter>
#include <QTabWidget>
#include <QTemporaryDir>
#include <QTextStream>
#include <QThread>

namespace {

void settle()
{
    for (int i = 0; i < 5; ++i) {
        QApplication::processEvents();
        QThread::msleep(20);
    }
}

bool save(QWidget &w, const QString &path)
{
    settle();
    const bool ok = w.grab().save(path);
    QTextStream(stdout) << (ok ? "wrote " : "could not write ") << path << "\n";
    return ok;
}

// A cover of stripes, the kind of art an album has.
QImage exampleCover()
{
    QImage image(256, 256, QImage::Format_RGB32);
    QPainter p(&image);
    const QColor colors[] = {QColor(0x1d, 0x3c, 0x5a), QColor(0xe0, 0x7a, 0x3f), QColor(0xf1, 0xd3, 0x8a),
                             QColor(0x2f, 0x6f, 0x6a)};
    for (int i = 0; i < 8; ++i) p.fillRect(0, i * 32, 256, 32, colors[i % 4]);
    p.setBrush(QColor(0xf5, 0xf0, 0xe6));
    p.setPen(Qt::NoPen);
    p.drawEllipse(QPoint(128, 128), 54, 54);
    return image;
}

}  // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    const QCommandLineOption out("out", "Folder for the PNG files.", "DIR");
    const QCommandLineOption sceneOption("scene", "Scene folder (holds manifest.json).", "DIR");
    parser.addOptions({out, sceneOption});
    parser.process(app);
    if (!parser.isSet(out)) {
        QTextStream(stderr) << "turnelo-ui-shots: --out DIR is required\n";
        return 2;
    }
    const QDir dir(parser.value(out));
    QDir().mkpath(dir.path());

    QTemporaryDir tmp;
    Settings settings(tmp.filePath(QStringLiteral("settings.json")));
    settings.setValue(QStringLiteral("contentServiceURL"), QStringLiteral("https://scenes.quelt.app/"));
    PlayerState state;
    SceneStatus status;
    PowerMonitor power(settings, nullptr);
    MusicPermission music(settings,
                          {[] {
                               return QList<PlayerSource>{{QStringLiteral("org.mpris.MediaPlayer2.spotify"),
                                                           QStringLiteral("Spotify"), QStringLiteral("Spotify")},
                                                          {QStringLiteral("org.mpris.MediaPlayer2.mpv"),
                                                           QStringLiteral("mpv"), QStringLiteral("mpv")}};
                           },
                           [](const PlayerSource &s) {
                               return s.name == QStringLiteral("Spotify") ? MusicPermission::Status::available
                                                                          : MusicPermission::Status::notRunning;
                           },
                           {}});
    // The desktop tab as on Xfce, read from xfconf (nothing is applied here).
    SystemProcessLauncher launcher;
    DesktopCleaner cleaner(settings, linuxDesktopPreferences(QStringLiteral("XFCE")), launcher);
    const QString sceneDir = parser.value(sceneOption);
    if (!sceneDir.isEmpty()) {
        QFile file(sceneDir + QStringLiteral("/manifest.json"));
        if (!file.open(QIODevice::ReadOnly)) {
            QTextStream(stderr) << "turnelo-ui-shots: no manifest.json in " << sceneDir << "\n";
            return 1;
        }
        const PlateManifest manifest = PlateManifest::decode(file.readAll());
        QStringList framings;
        for (const auto &[name, framing] : manifest.framings) framings << name;
        status.setScene(framings, SceneFiles::installed(sceneDir, manifest, framings), settings.framing(), sceneDir,
                        manifest);
        status.setWeather({true, 0.6});
    }

    UiServices services;
    services.settings = &settings;
    services.state = &state;
    services.status = &status;
    services.power = &power;
    services.music = &music;
    services.cleaner = &cleaner;
    services.logPath = QDir::home().filePath(QStringLiteral(".local/state/Turnelo Dev.log"));
    services.reloadScene = [] {};
    services.openLog = [] {};
    services.showOnboarding = [](int) {};
    services.launchAtLogin = [] { return false; };
    services.setLaunchAtLogin = [](bool) { return true; };
    services.roomPicture = [&](QSize size) {
        if (sceneDir.isEmpty()) return QImage();
        OfflineRender::Options o;
        o.sceneDir = sceneDir;
        o.width = size.width();
        o.height = size.height();
        o.output = tmp.filePath(QStringLiteral("room.png"));
        o.localTime = QDateTime(QDate(2024, 6, 1), QTime(17, 30));
        return OfflineRender::render(o).isEmpty() ? QImage(o.output) : QImage();
    };

    bool ok = true;
    {
        PopoverWindow popover(services);
        popover.popup(QRect(900, 0, 24, 24));
        ok &= save(popover, dir.filePath(QStringLiteral("popover-idle.png")));
        settings.setMusicSetupDone(true);
        settings.setLightPreset(QStringLiteral("tarde"));
        Track track;
        track.title = QStringLiteral("Águas de Março");
        track.artist = QStringLiteral("Elis Regina & Tom Jobim");
        track.album = QStringLiteral("Elis & Tom");
        track.trackNumber = 7;
        track.trackCount = 14;
        track.duration = 212;
        track.source = {QStringLiteral("org.mpris.MediaPlayer2.spotify"), QStringLiteral("Spotify"),
                        QStringLiteral("Spotify")};
        state.setTrack(track);
        state.setArtwork(exampleCover());
        state.setPlaying(true);
        ok &= save(popover, dir.filePath(QStringLiteral("popover-playing.png")));
    }
    {
        SettingsWindow window(services);
        window.show(SettingsWindow::Tab::general);
        const char *names[] = {"general", "scene", "music", "desktop", "about"};
        for (int i = 0; i < 5; ++i) {
            window.tabs()->setCurrentIndex(i);
            ok &= save(window, dir.filePath(QStringLiteral("settings-%1.png").arg(QLatin1String(names[i]))));
        }
    }
    {
        OnboardingWindow onboarding(services);
        for (int step = 1; step <= OnboardingWindow::stepCount; ++step) {
            onboarding.show(step);
            ok &= save(onboarding, dir.filePath(QStringLiteral("onboarding-%1.png").arg(step)));
        }
    }
    return ok ? 0 : 1;
}
