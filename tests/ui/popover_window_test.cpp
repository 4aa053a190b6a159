// The tray popover: the room's state in the user's words, framing tiles over a real installer
// fetching from nginx, and the light dial, where a choice reaches the settings.

#include "NginxServer.h"
#include "ScenePackages.h"
#include "TestSupport.h"
#include "core/app/Settings.h"
#include "core/delivery/PackageDownload.h"
#include "core/delivery/SceneInstaller.h"
#include "core/music/PlayerState.h"
#include "core/scene/SceneFiles.h"
#include "core/scene/SceneStatus.h"
#include "ui/FramingTile.h"
#include "ui/LightDial.h"
#include "ui/PopoverWindow.h"
#include "ui/SceneTab.h"

#include <QLabel>
#include <QProgressBar>
#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>

using namespace testsupport;
using namespace scenepackages;
using namespace std::chrono_literals;
using Kind = PopoverModel::Tile::Kind;

namespace {

FramingTile *tileNamed(PopoverWindow &popover, const QString &name)
{
    for (FramingTile *t : popover.framingTiles())
        if (t->tile().name == name) return t;
    return nullptr;
}

// The words of the header, the status line and the now-playing section from the shared state, and
// the light dial: each quarter picks its own preset (morning at the top, then clockwise), the middle
// the clock, a preset the scene lacks nothing, and a click writes the choice.
TEST(PopoverWindow, TellsTheRoomsStateAndTheDialWritesTheChosenLight)
{
    QTemporaryDir tmp;
    Settings settings(tmp.filePath("settings.json"));
    PlayerState state;
    SceneStatus status;
    UiServices services;
    services.settings = &settings;
    services.state = &state;
    services.status = &status;
    PopoverWindow popover(services);
    popover.popup({});
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&popover));
    // Each click changes the mode, so each one is seen to land; centerOf("auto") is the middle.
    LightDial *inPopover = popover.lightDial();
    for (const QString mode : {"manha", "dia", "tarde", "noite", "auto"}) {
        QTest::mouseClick(inPopover, Qt::LeftButton, {}, inPopover->centerOf(mode).toPoint());
        EXPECT_EQ(settings.lightPreset(), mode);
    }
    LightDial dial;
    dial.resize(300, 200);
    dial.setState({"manha", "dia", "tarde", "noite"}, "auto", "dia", 0.4);
    const QPointF c(150, 100);
    const std::pair<QPointF, QString> quarters[] = {
        {{0, 0}, "auto"}, {{0, -50}, "manha"}, {{50, 0}, "dia"}, {{0, 50}, "tarde"}, {{-50, 0}, "noite"}};
    for (const auto &[offset, mode] : quarters) EXPECT_EQ(dial.modeAt(c + offset), mode);
    // The clock's hand at 0.4 of the day (144° clockwise from the top, in the afternoon's quarter): across the
    // whole ring along that direction.
    const QImage shot = dial.grab().toImage();
    dial.setState({"manha", "dia", "tarde", "noite"}, "auto", "dia", std::nullopt);
    const QImage handless = dial.grab().toImage();
    const QPointF dir(std::sin(0.8 * M_PI), -std::cos(0.8 * M_PI));
    std::vector<double> ring;
    for (double a = 0; a < 150; a += 0.5)
        if (dial.modeAt(c + dir * a) == "tarde") ring.push_back(a);
    ASSERT_GT(ring.size(), 40u);
    for (double a = ring.front() + 3; a < ring.back() - 3; a += 1) {
        const QPoint q = (c + dir * a).toPoint();
        EXPECT_NE(shot.pixel(q), handless.pixel(q)) << "no hand " << a << " px out";
    }
    dial.setState({"dia", "noite"}, "auto", "dia", std::nullopt);
    EXPECT_EQ(dial.modeAt(c + QPointF(0, -50)), "");

    PopoverModel &model = popover.model();
    EXPECT_EQ(model.header(), "On the desk · Main display");
    settings.setAllScreens(true);
    EXPECT_EQ(model.header(), "On the desk · All displays");
    settings.setShowTurntable(false);
    EXPECT_EQ(model.header(), "Hidden");

    EXPECT_EQ(model.statusLines(), QStringList{"Getting the room ready…"});
    // Each reason in the interface's own words; the log's detail stays out of the popover.
    using Reason = SceneStatus::Reason;
    const std::pair<Reason, QString> reasons[] = {
        {Reason::noScene, "No room is installed yet. Check Now in Settings › Scene downloads it."},
        {Reason::damagedPlates,
         "Some of the room’s files are missing or damaged, so it can’t be drawn. Reload it in Settings › Scene."},
        {Reason::gpu, "The graphics device couldn’t draw the room. Reload it in Settings › Scene to try again."},
        {Reason::badManifest, "The room didn’t load. Reload it in Settings › Scene."}};
    for (const auto &[reason, text] : reasons) {
        status.setProblem(SceneStatus::Problem{reason, "manifest.json: contrato 2"});
        EXPECT_EQ(model.statusLines(), QStringList{text});
    }
    status.setWeather({true, 0.5});
    EXPECT_EQ(model.statusLines().last(), "Raining in São Paulo");
    settings.setEffect("fxWeather", false);
    EXPECT_EQ(model.statusLines().size(), 1) << "no weather while rain is off";

    EXPECT_FALSE(model.nowPlaying().hasTrack);
    EXPECT_EQ(model.nowPlaying().emptyText, "Connect Spotify or Music…");
    settings.setMusicSetupDone(true);
    EXPECT_EQ(model.nowPlaying().emptyText, "Play something in Spotify or Music.");
    Track track{"Wave", "", "Wave", 0, {"org.mpris.MediaPlayer2.spotify", "Spotify", "Spotify"}, 9, 14};
    state.setTrack(track);
    EXPECT_EQ(model.nowPlaying().side, "Side B · track 2");
    EXPECT_EQ(model.nowPlaying().player, "Spotify");
    track.trackNumber = 0;
    state.setTrack(track);
    EXPECT_EQ(model.nowPlaying().side, "");

    // Under an icon of a top panel, above one of a bottom panel, at the cursor without a tray
    // rectangle, and always inside the screen.
    const QRect screen(0, 0, 1280, 800);
    const QSize size(340, 600);
    EXPECT_EQ(PopoverWindow::placement({1000, 0, 24, 24}, {}, size, screen), QPoint(841, 27));
    EXPECT_EQ(PopoverWindow::placement({1000, 776, 24, 24}, {}, size, screen), QPoint(841, 172));
    EXPECT_EQ(PopoverWindow::placement({1260, 0, 20, 24}, {}, size, screen), QPoint(940, 27));
    EXPECT_EQ(PopoverWindow::placement({}, {100, 50}, size, screen), QPoint(0, 58));
}

// The first download of the room, then one tile per framing of its manifest: on disk, offered
// by the catalog (size, progress, failure), or neither. A framing becomes the room's only once
// its download has put it on disk.
TEST(PopoverWindow, FramingTilesSayWhatIsOnDiskAndWhatTheCatalogOffers)
{
    NginxServer server(QStringLiteral("300k"));
    ASSERT_TRUE(server.start());
    QTemporaryDir tmp;
    // The base holds "wide"; its manifest also describes "close" and "top", which the catalog
    // offers, and "mid", which nothing offers.
    const QByteArray manifestBytes = manifestJson("base", {"wide", "mid", "close", "top"});
    const PlateManifest manifest = PlateManifest::decode(manifestBytes);
    auto framingFiles = [&](const QString &name, qint64 plateBytes) {
        std::vector<ZipEntry> files;
        for (const QString &file : SceneFiles::referenced(manifest, name))
            files.push_back({file, file.endsWith(".exr") ? randomBytes(plateBytes, 7) : QByteArray("P"), {}, false});
        return files;
    };
    auto baseFiles = framingFiles("wide", 150000);  // slow enough for its progress to show
    baseFiles.push_back({"manifest.json", manifestBytes, {}, false});
    auto base = publishZip(server.scenesDir(), "slow-apt-1.zip", baseFiles, "base");
    base.title = "Apartment";
    auto framing = [&](const QString &zip, const std::vector<ZipEntry> &files, const QString &name) {
        auto e = publishZip(server.scenesDir(), zip, files, name);
        e.framing = name;
        e.base = false;
        return e;
    };
    // Slow enough that its progress shows; "top" lacks its folder and fails.
    const auto close = framing("slow-close.zip", framingFiles("close", 1500000), "close");
    const auto top = framing("top.zip", {{"elsewhere/t.exr", "T", {}, false}}, "top");
    writeCatalog(server.scenesDir(), {base, close, top});

    Settings settings(tmp.filePath("settings.json"));
    settings.setValue("contentServiceURL", server.baseURL());
    settings.setFraming("wide");
    SceneInstaller::Options options;
    options.root = tmp.filePath("support");
    options.schedule = [](std::chrono::seconds, std::function<void()>) {};
    SceneInstaller installer(settings, options);
    SceneStatus status;
    status.setProblem(SceneStatus::Problem{SceneStatus::Reason::noScene, "nenhuma cena instalada em " + options.root});
    UiServices services;
    services.settings = &settings;
    services.installer = &installer;
    services.status = &status;
    PopoverWindow popover(services);
    PopoverModel model(services);

    // While nothing is installed the room is on its way, with its progress, not a failure.
    popover.popup({});
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&popover));
    QStringList downloading;
    int barMost = 0;  // the most the popover's progress bar showed, of 1000
    QObject::connect(&installer, &SceneInstaller::phaseChanged, [&] {
        if (installer.phase().kind == SceneInstaller::Phase::downloading) {
            downloading = model.statusLines();
            if (const auto *bar = popover.findChild<QProgressBar *>(); bar && bar->isVisible())
                barMost = std::max(barMost, bar->value());
        }
    });
    installer.sync();
    ASSERT_TRUE(waitUntil([&] { return !installer.running(); }, 60s));
    ASSERT_EQ(installer.phase().kind, SceneInstaller::Phase::ready) << qPrintable(installer.lastRunError());
    ASSERT_EQ(downloading.size(), 2) << qPrintable(downloading.join('\n'));
    EXPECT_EQ(downloading[0], "The room is being downloaded. It appears on the desk once it’s installed.");
    EXPECT_TRUE(downloading[1].startsWith("Downloading Apartment: ")) << qPrintable(downloading[1]);
    EXPECT_GT(barMost, 0);

    // What the scene view publishes on each load, and it loads again when the framing changes.
    const QString root = options.root + "/Scenes";
    const QStringList names{"wide", "mid", "close", "top"};
    auto publish = [&] {
        status.setScene(names, SceneFiles::installed(root, manifest, names), settings.framing(), root, manifest);
        status.setProblem(std::nullopt);
    };
    QObject::connect(&settings, &Settings::framingChanged, publish);
    publish();

    ASSERT_EQ(popover.framingTiles().size(), 4);
    QCoreApplication::processEvents();  // the grid lays the new tiles out
    for (FramingTile *a : popover.framingTiles())
        for (FramingTile *b : popover.framingTiles())
            EXPECT_TRUE(a == b || !a->geometry().intersects(b->geometry())) << "tiles over each other";
    EXPECT_EQ(tileNamed(popover, "wide")->tile().text, "In use");
    FramingTile *closeTile = tileNamed(popover, "close");
    EXPECT_EQ(closeTile->tile().kind, Kind::downloadable);
    EXPECT_EQ(closeTile->tile().sizeText, PackageDownload::formatBytes(close.size));
    EXPECT_EQ(closeTile->tile().title, "Close");
    FramingTile *midTile = tileNamed(popover, "mid");
    EXPECT_EQ(midTile->tile().kind, Kind::unavailable);
    EXPECT_FALSE(midTile->isEnabled());
    // The tile in use is ringed in the accent colour, the others are not; the size badge, top
    // right, marks what the catalog offers, and a tile on disk has none.
    const auto tileImage = [&](const char *name) { return tileNamed(popover, name)->grab().toImage(); };
    const auto topEdge = [&](const char *name) {
        const QImage image = tileImage(name);
        return QColor(image.pixel(image.width() / 2, 1));
    };
    const auto badgePixels = [&](const char *name) {
        const QImage image = tileImage(name);
        const QRgb mid = popover.palette().color(QPalette::Active, QPalette::Mid).rgb();
        const QRect topRight(image.width() / 2, 10, image.width() - 12 - image.width() / 2, 12);
        return testsupport::sumOver(topRight, [&](int x, int y) { return image.pixel(x, y) == mid; });
    };
    const QColor accent = popover.palette().color(QPalette::Active, QPalette::Highlight);
    EXPECT_EQ(topEdge("wide"), accent);
    EXPECT_NE(topEdge("close"), accent);
    EXPECT_GT(badgePixels("close"), 20);
    EXPECT_EQ(badgePixels("wide"), 0);

    QTest::mouseClick(closeTile, Qt::LeftButton);
    QString framingWhileDownloading;
    EXPECT_TRUE(waitUntil(
        [&] {
            const auto t = tileNamed(popover, "close")->tile();
            framingWhileDownloading = settings.framing();
            return t.kind == Kind::downloading && t.progress > 0.2 && t.progress < 0.9;
        },
        30s))
        << "no progress shown";
    EXPECT_EQ(framingWhileDownloading, "wide") << "switched to a framing that is not on disk";
    EXPECT_FALSE(tileNamed(popover, "close")->isEnabled()) << "a second click would start it again";
    ASSERT_TRUE(waitUntil([&] { return !installer.framingRunning(); }, 60s));
    // On disk now: the room switches to it.
    EXPECT_EQ(settings.framing(), "close");
    EXPECT_EQ(tileNamed(popover, "close")->tile().kind, Kind::installed);
    EXPECT_EQ(tileNamed(popover, "close")->tile().text, "In use");

    QTest::mouseClick(tileNamed(popover, "top"), Qt::LeftButton);
    ASSERT_TRUE(waitUntil([&] { return !installer.framingRunning(); }, 30s));
    FramingTile *topTile = tileNamed(popover, "top");
    EXPECT_EQ(topTile->tile().kind, Kind::failed);
    EXPECT_EQ(topTile->tile().text, "Couldn’t download this framing. Click to try again.");
    EXPECT_EQ(settings.framing(), "close");
    // A click on the failure tries again.
    const int before = int(server.accessLinesFor("/v1/scenes/top.zip").size());
    QTest::mouseClick(topTile, Qt::LeftButton);
    EXPECT_TRUE(installer.framingRunning());
    ASSERT_TRUE(waitUntil([&] { return !installer.framingRunning(); }, 30s));
    EXPECT_GT(server.accessLinesFor("/v1/scenes/top.zip").size(), before);

    QTest::keyClick(&popover, Qt::Key_Escape);
    EXPECT_FALSE(popover.isVisible());

    // A later check that fails keeps the room, and Settings › Scene says so until one succeeds.
    SceneTab sceneTab(services);
    auto *download = sceneTab.findChild<QLabel *>("download");
    ASSERT_TRUE(download);
    auto broken = base;
    broken.id = "base-2";
    broken.sha256 = QString(64, '0');
    for (const auto &offered : {QList{broken, close, top}, QList{base, close, top}}) {
        writeCatalog(server.scenesDir(), offered);
        installer.sync();
        ASSERT_TRUE(waitUntil([&] { return !installer.running(); }, 30s));
        EXPECT_EQ(installer.phase().kind, SceneInstaller::Phase::ready);
        EXPECT_EQ(download->text(),
                  offered[0].id == broken.id
                      ? "Installed room: Apartment.\nThe last check failed; Turnelo will try again later."
                      : "The room is up to date: Apartment.");
    }
}

}  // namespace
