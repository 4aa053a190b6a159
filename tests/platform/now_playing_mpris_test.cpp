// The now-playing monitor against real MPRIS players on a private session bus: scriptable test players
// (turnelo-mpris-player) for the choice rules and artwork, and mpv with its MPRIS plugin as a real player.

#include "core/app/SafeText.h"
#include "core/music/CoverLoader.h"
#include "core/music/NowPlayingMonitor.h"
#include "core/music/PlayerState.h"
#include "core/scheduling/ProcessUsage.h"
#include "platform/linux/MprisPlayerBackend.h"
#include "LoopbackHttp.h"
#include "PrivateBus.h"
#include "TestSupport.h"

#include <QBuffer>
#include <QDBusObjectPath>
#include <QFileInfo>
#include <QStandardPaths>
#include <QtEndian>
#include <gtest/gtest.h>
#include <map>
#include <sys/stat.h>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

QByteArray pngOf(QColor color)
{
    QByteArray bytes;
    QBuffer buffer(&bytes);
    solidImage(color, 8, 8).save(&buffer, "PNG");
    return bytes;
}

struct TrackArg {
    QString title, artist, album;
    double seconds = 200;
    int number = 1;
    QString art = {};
};

QString titleOf(const PlayerState &state) { return state.track() ? state.track()->title : QString(); }

struct NowPlayingMprisTest : ::testing::Test {
    LogTail log;
    PrivateBus bus;
    std::vector<std::unique_ptr<ServerProcess>> players;  // stopped with the test
    PlayerState state;
    MprisPlayerBackend backend{bus.bus()};
    double clock = 1000;  // the media clock, where a test gives it to a monitor
    NowPlayingMonitor monitor{state, backend};

    void SetUp() override
    {
        ASSERT_TRUE(bus.ok()) << "no private dbus-daemon";
        ASSERT_TRUE(QFileInfo(builtTool("turnelo-mpris-player")).isExecutable());
    }

    QString logged() const { return log.lines().join('\n'); }
    bool coverFailed(const QString &what)
    {
        return waitUntil([&] { return logged().contains("Capa Spotify: falhou " + what); }, 10s);
    }

    // A player's answer, waited for.
    std::optional<PlayerSourceBackend::Snapshot> ask(const PlayerSource &source)
    {
        std::optional<std::optional<PlayerSourceBackend::Snapshot>> answer;
        backend.query(source, [&](auto, const auto &snapshot) { answer.emplace(snapshot); });
        EXPECT_FALSE(answer.has_value()) << "answered from inside the call";
        EXPECT_TRUE(waitUntil([&] { return answer.has_value(); }, 5s));
        return answer.value_or(std::nullopt);
    }
    // The monitor's look at every player, its first (start()) or a fresh one, settled.
    void look(NowPlayingMonitor &m)
    {
        bool done = false;
        const auto c = QObject::connect(&m, &NowPlayingMonitor::refreshed, [&] { done = true; });
        m.isStarted() ? m.refreshAll() : m.start();
        EXPECT_TRUE(waitUntil([&] { return done; }, 5s));
        QObject::disconnect(c);
    }

    QProcess &startProcess(const QString &program, const QStringList &args)
    {
        players.push_back(std::make_unique<ServerProcess>());
        players.back()->setProcessEnvironment(bus.env());
        players.back()->start(program, args);
        return *players.back();
    }

    void startPlayer(const QString &name, const QString &identity, const QString &status, const QList<TrackArg> &tracks,
                     double position = 0, const QStringList &hostility = {})
    {
        QStringList args{"--name",   name,   "--identity", identity,
                         "--status", status, "--position", QString::number(position)};
        args << hostility;
        for (const TrackArg &t : tracks)
            args << "--track"
                 << QStringList{t.title, t.artist, t.album, QString::number(t.seconds), QString::number(t.number),
                                t.art}
                        .join('|');
        QProcess &process = startProcess(builtTool("turnelo-mpris-player"), args);
        EXPECT_TRUE(process.waitForReadyRead(10000)) << process.readAllStandardError().constData();
        EXPECT_EQ(process.readLine().trimmed(), "ready");
    }

    // A method of a player's Player interface, as a remote control calls it.
    static QDBusMessage message(const QString &name, const QString &method, const QVariantList &args = {},
                                const QString &interface = "org.mpris.MediaPlayer2.Player")
    {
        QDBusMessage m = QDBusMessage::createMethodCall(name.contains('.') ? name : "org.mpris.MediaPlayer2." + name,
                                                        "/org/mpris/MediaPlayer2", interface, method);
        m.setArguments(args);
        return m;
    }
    void control(const QString &name, const QString &method, const QVariantList &args = {})
    {
        ASSERT_TRUE(isReply(bus.bus().call(message(name, method, args), QDBus::Block, 5000)));
    }
    // Without waiting for the player, which may be stuck.
    void poke(const QString &name, const QString &method) { bus.bus().asyncCall(message(name, method)); }
    // A player may leave before it answers.
    void quit(const QString &name)
    {
        bus.bus().call(message(name, "Quit", {}, "org.mpris.MediaPlayer2"), QDBus::Block, 5000);
    }
    void next(const QString &expectedTitle)
    {
        control("spotify", "Next");
        ASSERT_TRUE(waitUntil([&] { return titleOf(state) == expectedTitle; }, 5s)) << qPrintable(expectedTitle);
    }
};

}  // namespace

TEST_F(NowPlayingMprisTest, SourcesListSpotifyFirstThenByNameQueryMapsMetadataAndReadingStartsNoPlayer)
{
    // An activatable player: the first message to its name would run it, which leaves a mark.
    const QString mark = bus.dir.filePath("started");
    const PlayerSource sleeper{"org.mpris.MediaPlayer2.sleeper", "sleeper", "sleeper"};
    writeFile(bus.serviceDir() + "/" + sleeper.id + ".service",
              QStringLiteral("[D-BUS Service]\nName=%1\nExec=/usr/bin/touch %2\n").arg(sleeper.id, mark).toUtf8());
    startPlayer("zplayer", "Zed", "Paused", {{"z", "Z", "Zalbum"}});
    startPlayer("spotify", "Spotify", "Playing",
                {{"Song", "One;Two", "Record", 215.5, 4, "https://example.invalid/a.jpg"}}, 30);
    startPlayer("aplayer.instance42", "Ay", "Paused", {{"a", "A", "Aalbum"}});
    const PlayerSource spotify{"org.mpris.MediaPlayer2.spotify", "Spotify", "Spotify"};
    const QList<PlayerSource> sources = backend.sources();
    EXPECT_EQ(sources, (QList<PlayerSource>{spotify,
                                            {"org.mpris.MediaPlayer2.aplayer.instance42", "Ay", "Ay"},
                                            {"org.mpris.MediaPlayer2.zplayer", "Zed", "Zed"}}));
    EXPECT_FALSE(backend.isRunning(sleeper));

    const auto snapshot = ask(spotify);
    ASSERT_TRUE(snapshot.has_value());
    EXPECT_EQ(snapshot->track, (Track{"Song", "One, Two", "Record", 215.5, spotify, 4, 0}));
    EXPECT_TRUE(snapshot->isPlaying);
    EXPECT_GE(snapshot->position, 30.0);
    EXPECT_LT(snapshot->position, 40.0);
    EXPECT_EQ(snapshot->artworkURL.value_or(QUrl()).toString(), "https://example.invalid/a.jpg");

    control("spotify", "Stop");
    EXPECT_FALSE(ask(spotify).has_value()) << "stopped is nothing";

    look(monitor);
    monitor.refresh(sleeper);
    EXPECT_FALSE(backend.isRunning(sleeper)) << "while watching the bus";
    EXPECT_FALSE(ask(sleeper).has_value()) << "not even a direct query starts it";
    spin(500ms);
    EXPECT_FALSE(QFile::exists(mark));
    // The same message with auto-start does start it: the setup above is live.
    bus.bus().call(message(sleeper.id, "Ping", {}, "org.freedesktop.DBus.Peer"), QDBus::Block, 2000);
    EXPECT_TRUE(waitUntil([&] { return QFile::exists(mark); }, 5s));
}

// Each reading of the position is dated on the monitor's clock (extrapolation is PlayerState's).
TEST_F(NowPlayingMprisTest, ChoiceAmongPlayersDatedPositionsBackgroundPauseAndQuitting)
{
    startPlayer("vlc", "VLC media player", "Playing", {{"Vlc song", "V", "Valbum"}});
    startPlayer("spotify", "Spotify", "Paused", {{"Spotify song", "S", "Salbum"}}, 30);
    monitor.setClock([&] { return clock; });
    look(monitor);
    EXPECT_EQ(titleOf(state), "Vlc song") << "one that plays wins over the order";
    // Nobody plays: the first source in order (Spotify) wins.
    control("vlc", "Pause");
    ASSERT_TRUE(waitUntil([&] { return !state.isPlaying(); }, 5s));
    look(monitor);
    EXPECT_EQ(titleOf(state), "Spotify song");
    EXPECT_DOUBLE_EQ(state.position(), 30.0);
    EXPECT_DOUBLE_EQ(state.positionDate(), 1000.0);

    // A player that starts playing takes the room; a seek is a notification of its own.
    clock = 2000;
    control("spotify", "Play");
    ASSERT_TRUE(waitUntil([&] { return state.isPlaying(); }, 5s));
    EXPECT_DOUBLE_EQ(state.positionDate(), 2000.0);
    EXPECT_NEAR(state.position(), 30.0, 2.0);
    clock = 3000;
    control("spotify", "SetPosition", {QVariant::fromValue(QDBusObjectPath("/track/0")), qlonglong(120'000'000)});
    ASSERT_TRUE(waitUntil([&] { return state.positionDate() == 3000.0; }, 5s));
    EXPECT_NEAR(state.position(), 120.0, 2.0);

    // Of two that play, the one that started last takes the room; a fresh look takes the first.
    control("vlc", "Play");
    ASSERT_TRUE(waitUntil([&] { return titleOf(state) == "Vlc song"; }, 5s));
    look(monitor);
    EXPECT_EQ(titleOf(state), "Spotify song");

    // The other player pausing in the background changes nothing.
    int trackSignals = 0;
    QObject::connect(&state, &PlayerState::trackChanged, [&] { ++trackSignals; });
    control("vlc", "Pause");
    spin(300ms);
    EXPECT_TRUE(state.isPlaying());
    EXPECT_EQ(trackSignals, 0);

    // The background player quitting leaves the room alone; the shown one quitting clears it.
    quit("vlc");
    ASSERT_TRUE(waitUntil([&] { return !bus.hasOwner("org.mpris.MediaPlayer2.vlc"); }, 5s));
    spin(200ms);
    EXPECT_EQ(titleOf(state), "Spotify song");
    quit("spotify");
    ASSERT_TRUE(waitUntil([&] { return !state.track().has_value(); }, 5s));
    EXPECT_FALSE(state.isPlaying());
    EXPECT_FALSE(monitor.lastArtworkKey().has_value());

    // A player starting is picked up from its appearance on the bus.
    startPlayer("vlc", "VLC media player", "Playing", {{"Back", "V", "Valbum"}});
    EXPECT_TRUE(waitUntil([&] { return titleOf(state) == "Back"; }, 5s));
}

TEST_F(NowPlayingMprisTest, ArtworkFromFilesAndOncePerAlbumLateCoversDropped)
{
    QTemporaryDir dir;
    const QString cover = dir.filePath("cover.png");
    writeFile(cover, pngOf(Qt::yellow));
    LoopbackHttp http;
    const std::map<QString, QByteArray> covers{
        {"/a.png", pngOf(Qt::red)}, {"/slow.png", pngOf(Qt::green)}, {"/c.png", pngOf(Qt::blue)}};
    http.answer = [&](const QString &path) {
        const auto found = covers.find(path);
        return found == covers.end() ? LoopbackHttp::Reply{"missing", 404}
                                     : LoopbackHttp::Reply{found->second, 200, path == "/slow.png" ? 600 : 0};
    };
    startPlayer("spotify", "Spotify", "Playing",
                {{"File", "Band", "From file", 200, 1, QUrl::fromLocalFile(cover).toString()},
                 {"Missing", "Band", "Missing", 200, 1, http.url("/none.png")},
                 {"One", "Band", "Album A", 200, 1, http.url("/a.png")},
                 {"Two", "Band", "Album A", 180, 2, http.url("/a.png")},
                 {"Bare", "Band", "No art", 200, 1, ""},
                 {"Three", "Band", "Album B", 190, 1, http.url("/slow.png")},
                 {"Four", "Band", "Album C", 170, 1, http.url("/c.png")}});
    look(monitor);
    const auto colour = [&] { return state.artwork().isNull() ? QColor() : state.artwork().pixelColor(0, 0); };
    EXPECT_TRUE(waitUntil([&] { return colour() == QColor(Qt::yellow); }, 5s));

    next("Missing");
    ASSERT_TRUE(coverFailed(http.url("/none.png")));
    EXPECT_EQ(titleOf(state), "Missing") << "a failed cover leaves the track in place";
    EXPECT_TRUE(waitUntil([&] { return state.artwork().isNull(); }, 5s)) << "the last track's cover stayed";

    next("One");
    ASSERT_TRUE(waitUntil([&] { return colour() == QColor(Qt::red); }, 5s));
    next("Two");
    spin(300ms);
    EXPECT_EQ(http.targets.count("/a.png"), 1);
    EXPECT_EQ(colour(), QColor(Qt::red));
    next("Bare");
    EXPECT_TRUE(state.artwork().isNull()) << "a track without a cover shows none";

    // Album B's cover is slow; album C comes before it arrives. B's cover must not win.
    control("spotify", "Next");
    ASSERT_TRUE(waitUntil([&] { return http.targets.count("/slow.png") == 1; }, 5s));
    next("Four");
    ASSERT_TRUE(waitUntil([&] { return colour() == QColor(Qt::blue); }, 5s));
    spin(900ms);  // the slow answer has come and gone
    EXPECT_EQ(colour(), QColor(Qt::blue));
    EXPECT_FALSE(logged().contains(http.url("/slow.png"))) << "a late cover is not even logged";
}

// A real player: mpv with the MPRIS plugin playing a generated, tagged file.
TEST_F(NowPlayingMprisTest, MpvWithMprisPluginIsSeen)
{
    const QString mpv = QStandardPaths::findExecutable("mpv");
    const QString plugin = "/usr/lib/mpv-mpris/mpris.so";
    if (mpv.isEmpty() || !QFileInfo::exists(plugin))
        GTEST_SKIP() << "mpv and mpv-mpris are not installed (scripts/install-deps.sh installs them)";

    // 30 s of silence, 8 kHz mono 16-bit PCM, with RIFF INFO tags.
    auto chunk = [](const char *id, QByteArray body) {
        const quint32 size = qToLittleEndian(quint32(body.size()));
        return QByteArray(id, 4) + QByteArray(reinterpret_cast<const char *>(&size), 4) +
               (body.size() % 2 ? body + '\0' : body);
    };
    auto tag = [&](const char *id, const char *s) { return chunk(id, QByteArray(s) + '\0'); };
    const QByteArray info = "INFO" + tag("INAM", "Quiet Groove") + tag("IART", "Test Band") +
                            tag("IPRD", "Silent Album") + tag("IPRT", "3");
    // Little-endian: PCM, mono, 8000 Hz, 16000 bytes a second, 2-byte frames of 16 bits.
    const QByteArray fmt = QByteArray::fromHex("01000100401f0000803e000002001000");
    QTemporaryDir dir;
    const QString file = dir.filePath("tagged.wav");
    writeFile(file, chunk("RIFF", "WAVE" + chunk("fmt ", fmt) + chunk("LIST", info) +
                                      chunk("data", QByteArray(8000 * 2 * 30, '\0'))));

    look(monitor);
    startProcess(mpv,
                 {"--no-config", "--script=" + plugin, "--ao=null", "--no-video", "--really-quiet", "--idle=no", file});
    // mpv first announces the file by its name, then its tags once they are read.
    ASSERT_TRUE(
        waitUntil([&] { return state.track() && state.track()->album == "Silent Album" && state.isPlaying(); }, 15s))
        << "mpv never showed up as playing its tagged file";
    EXPECT_EQ(state.track()->title, "Quiet Groove");
    EXPECT_EQ(state.track()->artist, "Test Band");
    EXPECT_NEAR(state.track()->duration, 30.0, 0.5);
    EXPECT_TRUE(state.track()->source.id.startsWith("org.mpris.MediaPlayer2.mpv"));

    // Pausing it through MPRIS is seen through its PropertiesChanged.
    control(state.track()->source.id, "Pause");
    ASSERT_TRUE(waitUntil([&] { return !state.isPlaying(); }, 5s));
    EXPECT_TRUE(state.track().has_value());
}

TEST_F(NowPlayingMprisTest, PlayersThatStallFloodOrNameHostileCoversNeverHoldTheRoom)
{
    QTemporaryDir dir;
    const QString fifo = dir.filePath("cover.fifo"), huge = dir.filePath("huge.jpg"), good = dir.filePath("good.png");
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    writeFile(huge, {});
    ASSERT_TRUE(QFile::resize(huge, qint64(2) << 30)) << "a sparse 2 GB file";
    writeFile(good, pngOf(Qt::yellow));
    LoopbackHttp http;
    http.answer = [](const QString &) { return LoopbackHttp::Reply{"\x89PNG", 200, 0, -1, 64 * 1024}; };
    const auto file = [](const QString &path) { return QUrl::fromLocalFile(path).toString(); };
    const QString longTitle = "Line\nbreak\x1b[31m\u202Eevil" + QString(100'000, QChar('w'));
    // One player answers 1.5 s late, past the time-out; the other names covers that would block or sink a
    // reader, then changes album 400 times a second for 3 s once it plays.
    startPlayer("slow", "Slow", "Playing", {{"Slow song", "S", "Slow album"}}, 0, {"--slow", "1500"});
    startPlayer("spotify", "Spotify", "Paused",
                {{"Fifo", "B", "A1", 200, 1, file(fifo)},
                 {"Random", "B", "A2", 200, 1, "file:///dev/urandom"},
                 {"Huge", "B", "A3", 200, 1, file(huge)},
                 {"Endless", "B", "A4", 200, 1, http.url("/endless.png")},
                 {longTitle, "B", "A5", 200, 1, file(good)}},
                0, {"--flood", "400,3"});
    MprisPlayerBackend quick(bus.bus(), 400);
    NowPlayingMonitor guarded(state, quick);
    guarded.setClock([&] { return clock; });
    TransferLimits limits = CoverLoader::httpLimits;
    limits.maxBytes = 1 << 20;
    guarded.covers().setHttpLimits(limits);
    // The longest the main thread went without running its event loop, from a 20 ms timer.
    QElapsedTimer since;
    qint64 longest = 0;
    QTimer beat;
    QObject::connect(&beat, &QTimer::timeout, [&] { longest = std::max(longest, since.restart()); });
    since.start();
    beat.start(20);
    const int footprint = ProcessUsage::footprintMegabytes();
    look(guarded);
    EXPECT_EQ(titleOf(state), "Fifo") << "the one that answered";
    EXPECT_EQ(log.messages().filter("[Slow] não respondeu").size(), 1);

    for (const auto &[title, cover] : std::vector<std::pair<QString, QString>>{
             {"Fifo", fifo}, {"Random", "/dev/urandom"}, {"Huge", huge}, {"Endless", http.url("/endless.png")}}) {
        if (title != "Fifo") next(title);  // the first track is already on
        EXPECT_TRUE(coverFailed(cover)) << qPrintable(title);
    }
    EXPECT_LT(http.sent, 16 << 20);

    // A title far longer than any sleeve is cut; the cover after all that still arrives.
    control("spotify", "Next");
    ASSERT_TRUE(waitUntil([&] { return !state.artwork().isNull(); }, 5s));
    EXPECT_EQ(titleOf(state).size(), SafeText::fieldLength);
    EXPECT_TRUE(titleOf(state).startsWith("Line break[31mevilwww")) << qPrintable(titleOf(state).left(40));

    // The stalled player is left alone while quiet: its notifications cost nothing.
    for (int i = 0; i < 5; ++i) poke("slow", "Next");
    int trackChanges = 0;
    QObject::connect(&state, &PlayerState::trackChanged, [&] { ++trackChanges; });
    poke("spotify", "Play");
    // The flood is merged into a few answers a second, and the last album shows once it ends.
    ASSERT_TRUE(waitUntil([&] { return titleOf(state) == "Flood 1200"; }, 10s)) << qPrintable(titleOf(state));
    EXPECT_LT(trackChanges, 3 * 1000 / NowPlayingMonitor::minQueryIntervalMs + 10);
    EXPECT_GT(trackChanges, 5);
    EXPECT_TRUE(waitUntil([&] { return !state.artwork().isNull(); }, 5s));
    EXPECT_EQ(log.messages().filter("[Slow] não respondeu").size(), 1);

    // After the quiet spell it is asked again, and times out again.
    clock += NowPlayingMonitor::quietAfterTimeout + 1;
    poke("slow", "Next");
    EXPECT_TRUE(waitUntil([&] { return log.messages().filter("[Slow] não respondeu").size() == 2; }, 5s));
    EXPECT_EQ(titleOf(state), "Flood 1200");
    EXPECT_LT(longest, 500) << "the main thread stood still";
    EXPECT_LT(ProcessUsage::footprintMegabytes() - footprint, 100);
}
