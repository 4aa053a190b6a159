// The now-playing monitor against real MPRIS players on a private session bus: scriptable test
// players (turnelo-mpris-player) for the choice rules and artwork, and mpv with its MPRIS plugin
// as a real player.

#include "core/app/Log.h"
#include "core/music/NowPlayingMonitor.h"
#include "core/music/PlayerState.h"
#include "platform/linux/MprisPlayerBackend.h"
#include "TestSupport.h"

#include <QBuffer>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTimer>
#include <QtEndian>
#include <gtest/gtest.h>
#include <map>
#include <memory>

// Readable failures for Qt strings.
inline void PrintTo(const QString &s, std::ostream *os) { *os << '"' << s.toStdString() << '"'; }

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

// The log goes to a folder of this process's own, set before the log computes its path.
QTemporaryDir &stateDir()
{
    static QTemporaryDir dir;
    return dir;
}
const bool logRedirected = [] {
    qputenv("XDG_STATE_HOME", stateDir().path().toUtf8());
    return true;
}();

QString logText() { return QString::fromUtf8(readFile(Log::path())); }

// A dbus-daemon of our own, with a session-bus configuration in a temporary folder.
class PrivateBus {
public:
    PrivateBus()
    {
        QDir().mkpath(serviceDir());
        const QString config = dir.filePath("session.conf");
        writeFile(config, QStringLiteral(
            "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
            " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
            "<busconfig>\n"
            "  <type>session</type>\n"
            "  <listen>unix:path=%1</listen>\n"
            "  <auth>EXTERNAL</auth>\n"
            "  <servicedir>%2</servicedir>\n"
            "  <policy context=\"default\">\n"
            "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
            "    <allow eavesdrop=\"true\"/>\n"
            "    <allow own=\"*\"/>\n"
            "  </policy>\n"
            "</busconfig>\n").arg(dir.filePath("bus"), serviceDir()).toUtf8());
        daemon.start(QStringLiteral("dbus-daemon"),
                     {QStringLiteral("--config-file=") + config, QStringLiteral("--nofork"),
                      QStringLiteral("--print-address=1")});
        if (!daemon.waitForStarted(10000) || !daemon.waitForReadyRead(10000))
            return;
        address = QString::fromUtf8(daemon.readLine()).trimmed();
        name = QStringLiteral("private-bus-%1").arg(++counter);
        connection = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(address, name));
    }
    ~PrivateBus()
    {
        connection.reset();
        QDBusConnection::disconnectFromBus(name);
        daemon.terminate();
        if (!daemon.waitForFinished(5000)) {
            daemon.kill();
            daemon.waitForFinished();
        }
    }
    bool ok() const { return connection && connection->isConnected(); }
    // Activatable services: "<name>.service" files here start on the first message to the name.
    QString serviceDir() const { return dir.filePath("services"); }
    QDBusConnection &bus() { return *connection; }

    QTemporaryDir dir;
    QProcess daemon;
    QString address;
    QString name;
    std::unique_ptr<QDBusConnection> connection;
    static inline int counter = 0;
};

// A tiny HTTP/1.0 server on loopback that serves fixed bodies and counts requests per path.
class LoopbackHttp : public QObject {
public:
    LoopbackHttp()
    {
        server.listen(QHostAddress::LocalHost, 0);
        QObject::connect(&server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = server.nextPendingConnection()) {
                QObject::connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
                    const QByteArray head = socket->peek(4096);
                    if (!head.contains("\r\n\r\n"))
                        return;
                    socket->readAll();
                    const QString path = QString::fromLatin1(head.split(' ').value(1));
                    ++hits[path];
                    const int delay = delays.count(path) ? delays[path] : 0;
                    QTimer::singleShot(delay, socket, [this, socket, path] { answer(socket, path); });
                });
                QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
    }
    QString url(const QString &path) const
    {
        return QStringLiteral("http://127.0.0.1:%1%2").arg(server.serverPort()).arg(path);
    }
    void answer(QTcpSocket *socket, const QString &path)
    {
        const auto it = bodies.find(path);
        const QByteArray body = it == bodies.end() ? QByteArray("missing") : it->second;
        const QByteArray status = it == bodies.end() ? "404 Not Found" : "200 OK";
        socket->write("HTTP/1.0 " + status + "\r\nContent-Length: "
                      + QByteArray::number(body.size()) + "\r\nConnection: close\r\n\r\n" + body);
        socket->disconnectFromHost();
    }

    QTcpServer server;
    std::map<QString, QByteArray> bodies;
    std::map<QString, int> delays;  // ms before answering
    std::map<QString, int> hits;
};

QByteArray pngOf(QColor color, int side = 8)
{
    QImage image(side, side, QImage::Format_RGB32);
    image.fill(color);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "PNG");
    return bytes;
}

struct TrackArg {
    QString title, artist, album;
    double seconds = 200;
    int number = 1;
    QString art;
    QString text() const
    {
        return QStringList{title, artist, album, QString::number(seconds), QString::number(number),
                           art}.join(QLatin1Char('|'));
    }
};

struct NowPlayingMprisTest : ::testing::Test {
    PrivateBus bus;
    std::vector<std::unique_ptr<QProcess>> players;

    void SetUp() override
    {
        ASSERT_TRUE(bus.ok()) << "no private dbus-daemon";
        ASSERT_TRUE(QFileInfo(builtTool("turnelo-mpris-player")).isExecutable());
    }
    void TearDown() override
    {
        for (auto &p : players) {
            p->kill();
            p->waitForFinished();
        }
    }

    QProcess *startPlayer(const QString &name, const QString &identity, const QString &status,
                          const QList<TrackArg> &tracks, double position = 0)
    {
        auto process = std::make_unique<QProcess>();
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), bus.address);
        process->setProcessEnvironment(env);
        QStringList args{QStringLiteral("--name"), name, QStringLiteral("--identity"), identity,
                         QStringLiteral("--status"), status, QStringLiteral("--position"),
                         QString::number(position)};
        for (const TrackArg &t : tracks)
            args << QStringLiteral("--track") << t.text();
        process->start(builtTool("turnelo-mpris-player"), args);
        EXPECT_TRUE(process->waitForReadyRead(10000)) << process->readAllStandardError().constData();
        EXPECT_EQ(process->readLine().trimmed(), "ready");
        players.push_back(std::move(process));
        return players.back().get();
    }

    // Calls a method of a player's Player interface, as a remote control would.
    void control(const QString &name, const QString &method, const QVariantList &args = {})
    {
        QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("org.mpris.MediaPlayer2.") + name, QStringLiteral("/org/mpris/MediaPlayer2"),
            QStringLiteral("org.mpris.MediaPlayer2.Player"), method);
        call.setArguments(args);
        const QDBusMessage reply = bus.bus().call(call, QDBus::Block, 5000);
        ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << qPrintable(reply.errorMessage());
    }

    bool nameOwned(const QString &name)
    {
        QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
            QStringLiteral("org.freedesktop.DBus"), QStringLiteral("NameHasOwner"));
        call << QStringLiteral("org.mpris.MediaPlayer2.") + name;
        const QDBusMessage reply = bus.bus().call(call);
        return !reply.arguments().isEmpty() && reply.arguments().first().toBool();
    }
};

QString titleOf(const PlayerState &state) { return state.track() ? state.track()->title : QString(); }

}  // namespace

TEST_F(NowPlayingMprisTest, SourcesListSpotifyFirstThenByNameAndUseTheIdentity)
{
    startPlayer("zplayer", "Zed", "Paused", {{"z", "Z", "Zalbum"}});
    startPlayer("spotify", "Spotify", "Paused", {{"s", "S", "Salbum"}});
    startPlayer("aplayer.instance42", "Ay", "Paused", {{"a", "A", "Aalbum"}});
    MprisPlayerBackend backend(bus.bus());
    const QList<PlayerSource> sources = backend.sources();
    ASSERT_EQ(sources.size(), 3);
    EXPECT_EQ(sources[0].id, "org.mpris.MediaPlayer2.spotify");
    EXPECT_EQ(sources[1].id, "org.mpris.MediaPlayer2.aplayer.instance42");
    EXPECT_EQ(sources[2].id, "org.mpris.MediaPlayer2.zplayer");
    EXPECT_EQ(sources[0].logName, "Spotify");
    EXPECT_EQ(sources[1].logName, "Ay");
    EXPECT_TRUE(backend.isRunning(sources[2]));
    EXPECT_FALSE(backend.isRunning({"org.mpris.MediaPlayer2.absent", "x", "x"}));
}

TEST_F(NowPlayingMprisTest, QueryMapsMprisMetadata)
{
    startPlayer("spotify", "Spotify", "Playing",
                {{"Song", "One;Two", "Record", 215.5, 4, "https://example.invalid/a.jpg"}}, 30);
    MprisPlayerBackend backend(bus.bus());
    const auto snapshot = backend.query(backend.sources().value(0));
    ASSERT_TRUE(snapshot.has_value());
    EXPECT_EQ(snapshot->track.title, "Song");
    EXPECT_EQ(snapshot->track.artist, "One, Two");
    EXPECT_EQ(snapshot->track.album, "Record");
    EXPECT_DOUBLE_EQ(snapshot->track.duration, 215.5);
    EXPECT_EQ(snapshot->track.trackNumber, 4);
    EXPECT_EQ(snapshot->track.trackCount, 0);
    EXPECT_EQ(snapshot->track.source.logName, "Spotify");
    EXPECT_TRUE(snapshot->isPlaying);
    EXPECT_GE(snapshot->position, 30.0);
    EXPECT_LT(snapshot->position, 40.0);
    ASSERT_TRUE(snapshot->artworkURL.has_value());
    EXPECT_EQ(snapshot->artworkURL->toString(), "https://example.invalid/a.jpg");

    control("spotify", "Stop");
    EXPECT_FALSE(backend.query(backend.sources().value(0)).has_value()) << "stopped is nothing";
}

TEST_F(NowPlayingMprisTest, ReadingNeverStartsAPlayer)
{
    // An activatable player: the first message to its name would run it, which leaves a mark.
    const QString mark = bus.dir.filePath("started");
    writeFile(bus.serviceDir() + "/org.mpris.MediaPlayer2.sleeper.service",
              QStringLiteral("[D-BUS Service]\nName=org.mpris.MediaPlayer2.sleeper\n"
                             "Exec=/usr/bin/touch %1\n").arg(mark).toUtf8());
    const PlayerSource sleeper{"org.mpris.MediaPlayer2.sleeper", "sleeper", "sleeper"};
    PlayerState state;
    MprisPlayerBackend backend(bus.bus());
    NowPlayingMonitor monitor(state, backend);
    monitor.start();
    monitor.refresh(sleeper);
    EXPECT_FALSE(backend.isRunning(sleeper));
    EXPECT_FALSE(backend.query(sleeper).has_value()) << "not even a direct query starts it";
    spin(500ms);
    EXPECT_FALSE(QFile::exists(mark));
    EXPECT_FALSE(state.track().has_value());

    // The same message with auto-start does start it: the setup above is live.
    bus.bus().call(QDBusMessage::createMethodCall(sleeper.id, "/org/mpris/MediaPlayer2",
                                                  "org.freedesktop.DBus.Peer", "Ping"),
                   QDBus::Block, 2000);
    EXPECT_TRUE(waitUntil([&] { return QFile::exists(mark); }, 5s));
}

TEST_F(NowPlayingMprisTest, ChoiceAmongPlayersAndBackgroundPause)
{
    startPlayer("vlc", "VLC media player", "Playing", {{"Vlc song", "V", "Valbum"}});
    startPlayer("spotify", "Spotify", "Playing", {{"Spotify song", "S", "Salbum"}});
    PlayerState state;
    MprisPlayerBackend backend(bus.bus());
    NowPlayingMonitor monitor(state, backend);
    monitor.start();
    // Both play: Spotify's track.
    EXPECT_EQ(titleOf(state), "Spotify song");
    EXPECT_EQ(state.track()->source.logName, "Spotify");
    EXPECT_TRUE(state.isPlaying());

    // The other player pausing in the background changes nothing.
    int trackSignals = 0;
    QObject::connect(&state, &PlayerState::trackChanged, [&] { ++trackSignals; });
    control("vlc", "Pause");
    spin(300ms);
    EXPECT_EQ(titleOf(state), "Spotify song");
    EXPECT_TRUE(state.isPlaying());

    // Spotify pauses while the other player plays: the pause is ignored...
    control("vlc", "Play");
    ASSERT_TRUE(waitUntil([&] { return titleOf(state) == "Vlc song"; }, 5s))
        << "a player that starts playing takes the room";
    control("spotify", "Pause");
    spin(300ms);
    EXPECT_EQ(titleOf(state), "Vlc song");
    EXPECT_TRUE(state.isPlaying());
    EXPECT_EQ(trackSignals, 1);

    // ...and a fresh look at every player still prefers the one that plays.
    monitor.refreshAll();
    EXPECT_EQ(titleOf(state), "Vlc song");

    // Nobody plays: the first source in order (Spotify) wins.
    control("vlc", "Pause");
    monitor.refreshAll();
    EXPECT_EQ(titleOf(state), "Spotify song");
    EXPECT_FALSE(state.isPlaying());
}

TEST_F(NowPlayingMprisTest, PlayerQuittingClearsOnlyWhatItShowed)
{
    startPlayer("vlc", "VLC media player", "Paused", {{"Vlc song", "V", "Valbum"}});
    startPlayer("spotify", "Spotify", "Playing", {{"Spotify song", "S", "Salbum"}});
    PlayerState state;
    MprisPlayerBackend backend(bus.bus());
    NowPlayingMonitor monitor(state, backend);
    monitor.start();
    ASSERT_EQ(titleOf(state), "Spotify song");
    const qint64 logStart = logText().size();

    // The background player quitting leaves the room alone.
    QDBusMessage quit = QDBusMessage::createMethodCall(
        "org.mpris.MediaPlayer2.vlc", "/org/mpris/MediaPlayer2", "org.mpris.MediaPlayer2", "Quit");
    bus.bus().call(quit);
    ASSERT_TRUE(waitUntil([&] { return !nameOwned("vlc"); }, 5s));
    spin(200ms);
    EXPECT_EQ(titleOf(state), "Spotify song");

    // The shown player quitting clears it.
    bus.bus().call(QDBusMessage::createMethodCall("org.mpris.MediaPlayer2.spotify",
                                                  "/org/mpris/MediaPlayer2",
                                                  "org.mpris.MediaPlayer2", "Quit"));
    ASSERT_TRUE(waitUntil([&] { return !state.track().has_value(); }, 5s));
    EXPECT_FALSE(state.isPlaying());
    EXPECT_TRUE(state.artwork().isNull());
    EXPECT_FALSE(monitor.lastArtworkKey().has_value());
    const QString log = logText().mid(logStart);
    EXPECT_EQ(log.count("Nada tocando"), 1) << qPrintable(log);

    // A player starting is picked up from its appearance on the bus.
    startPlayer("vlc", "VLC media player", "Playing", {{"Back", "V", "Valbum"}});
    ASSERT_TRUE(waitUntil([&] { return titleOf(state) == "Back"; }, 5s));
    EXPECT_TRUE(logText().contains("[VLC media player] ▶ V — Back (Valbum)"));
}

TEST_F(NowPlayingMprisTest, ArtworkIsFetchedOncePerAlbumAndLateCoversAreDropped)
{
    LoopbackHttp http;
    http.bodies["/a.png"] = pngOf(Qt::red);
    http.bodies["/slow.png"] = pngOf(Qt::green);
    http.bodies["/c.png"] = pngOf(Qt::blue);
    http.delays["/slow.png"] = 600;
    startPlayer("spotify", "Spotify", "Playing",
                {{"One", "Band", "Album A", 200, 1, http.url("/a.png")},
                 {"Two", "Band", "Album A", 180, 2, http.url("/a.png")},
                 {"Three", "Band", "Album B", 190, 1, http.url("/slow.png")},
                 {"Four", "Band", "Album C", 170, 1, http.url("/c.png")}});
    PlayerState state;
    MprisPlayerBackend backend(bus.bus());
    NowPlayingMonitor monitor(state, backend);
    const qint64 logStart = logText().size();
    monitor.start();
    ASSERT_TRUE(waitUntil([&] { return !state.artwork().isNull(); }, 5s));
    EXPECT_EQ(state.artwork().pixelColor(0, 0), QColor(Qt::red));
    EXPECT_EQ(http.hits["/a.png"], 1);

    // Next track on the same album: new track, no new fetch.
    control("spotify", "Next");
    ASSERT_TRUE(waitUntil([&] { return titleOf(state) == "Two"; }, 5s));
    spin(300ms);
    EXPECT_EQ(http.hits["/a.png"], 1);
    EXPECT_EQ(state.artwork().pixelColor(0, 0), QColor(Qt::red));

    // Album B's cover is slow; album C comes before it arrives. B's cover must not win.
    control("spotify", "Next");
    ASSERT_TRUE(waitUntil([&] { return http.hits["/slow.png"] == 1; }, 5s));
    control("spotify", "Next");
    ASSERT_TRUE(waitUntil([&] { return titleOf(state) == "Four"; }, 5s));
    ASSERT_TRUE(waitUntil([&] { return state.artwork().pixelColor(0, 0) == QColor(Qt::blue); }, 5s));
    spin(900ms);  // the slow answer has come and gone
    EXPECT_EQ(state.artwork().pixelColor(0, 0), QColor(Qt::blue));

    const QString log = logText().mid(logStart);
    EXPECT_TRUE(log.contains("[Spotify] ▶ Band — One (Album A)")) << qPrintable(log);
    EXPECT_TRUE(log.contains("[Spotify] ▶ Band — Two (Album A)"));
    EXPECT_EQ(log.count("Capa Spotify: ok " + http.url("/a.png")), 1);
    EXPECT_TRUE(log.contains("Capa Spotify: ok " + http.url("/c.png")));
    EXPECT_FALSE(log.contains(http.url("/slow.png"))) << "a late cover is not even logged";
}

TEST_F(NowPlayingMprisTest, ArtworkFromFilesAndFailures)
{
    QTemporaryDir dir;
    const QString cover = dir.filePath("cover.png");
    writeFile(cover, pngOf(Qt::yellow));
    const QString junk = dir.filePath("junk.png");
    writeFile(junk, "not an image");
    LoopbackHttp http;  // serves nothing: every download is a 404
    startPlayer("spotify", "Spotify", "Playing",
                {{"One", "Band", "From file", 200, 1, QUrl::fromLocalFile(cover).toString()},
                 {"Two", "Band", "Junk file", 200, 1, QUrl::fromLocalFile(junk).toString()},
                 {"Three", "Band", "Missing", 200, 1, http.url("/none.png")},
                 {"Four", "Band", "No art", 200, 1, ""}});
    PlayerState state;
    MprisPlayerBackend backend(bus.bus());
    NowPlayingMonitor monitor(state, backend);
    const qint64 logStart = logText().size();
    monitor.start();
    EXPECT_EQ(state.artwork().pixelColor(0, 0), QColor(Qt::yellow)) << "a file cover is read at once";

    control("spotify", "Next");
    ASSERT_TRUE(waitUntil([&] { return titleOf(state) == "Two"; }, 5s));
    EXPECT_TRUE(state.artwork().isNull());

    control("spotify", "Next");
    ASSERT_TRUE(waitUntil([&] { return http.hits["/none.png"] == 1; }, 5s));
    ASSERT_TRUE(waitUntil([&] { return logText().contains("Capa Spotify: falhou " + http.url("/none.png")); }, 5s));
    EXPECT_TRUE(state.artwork().isNull());
    EXPECT_EQ(titleOf(state), "Three") << "a failed cover leaves the track in place";

    control("spotify", "Next");
    ASSERT_TRUE(waitUntil([&] { return titleOf(state) == "Four"; }, 5s));
    EXPECT_TRUE(state.artwork().isNull());

    const QString log = logText().mid(logStart);
    EXPECT_TRUE(log.contains("Capa Spotify: ok " + cover)) << qPrintable(log);
    EXPECT_TRUE(log.contains("Capa Spotify: falhou " + junk));
}

TEST_F(NowPlayingMprisTest, PositionExtrapolatesWhilePlayingAndHoldsWhilePaused)
{
    startPlayer("spotify", "Spotify", "Paused", {{"Song", "Band", "Album", 300, 1}}, 30);
    double clock = 1000;
    PlayerState state(clock);
    MprisPlayerBackend backend(bus.bus());
    NowPlayingMonitor monitor(state, backend);
    monitor.setClock([&] { return clock; });
    monitor.start();
    ASSERT_TRUE(state.track().has_value());
    EXPECT_FALSE(state.isPlaying());
    EXPECT_DOUBLE_EQ(state.position(), 30.0);
    EXPECT_DOUBLE_EQ(state.positionDate(), 1000.0);
    EXPECT_DOUBLE_EQ(state.currentPosition(1010), 30.0) << "paused: the position holds";

    clock = 2000;
    control("spotify", "Play");
    ASSERT_TRUE(waitUntil([&] { return state.isPlaying(); }, 5s));
    EXPECT_DOUBLE_EQ(state.positionDate(), 2000.0);
    EXPECT_NEAR(state.currentPosition(2010) - state.position(), 10.0, 1e-9);
    EXPECT_NEAR(state.position(), 30.0, 2.0);

    // A seek is a notification of its own: the reading follows it.
    clock = 3000;
    control("spotify", "SetPosition",
            {QVariant::fromValue(QDBusObjectPath("/track/0")), qlonglong(120'000'000)});
    ASSERT_TRUE(waitUntil([&] { return state.positionDate() == 3000.0; }, 5s));
    EXPECT_NEAR(state.position(), 120.0, 2.0);
    EXPECT_NEAR(state.currentPosition(3010), state.position() + 10.0, 1e-9);
}

// A real player: mpv with the MPRIS plugin playing a generated, tagged file.
TEST_F(NowPlayingMprisTest, MpvWithMprisPluginIsSeen)
{
    const QString mpv = QStandardPaths::findExecutable("mpv");
    const QString plugin = QStringLiteral("/usr/lib/mpv-mpris/mpris.so");
    if (mpv.isEmpty() || !QFileInfo::exists(plugin))
        GTEST_SKIP() << "mpv and mpv-mpris are not installed (scripts/install-deps.sh installs them)";

    // 30 s of silence, 8 kHz mono PCM, with RIFF INFO tags for title, artist, album and track.
    QTemporaryDir dir;
    const QString file = dir.filePath("tagged.wav");
    auto chunk = [](const char *id, QByteArray body) {
        QByteArray out(id, 4);
        char size[4];
        qToLittleEndian<quint32>(quint32(body.size()), size);
        out.append(size, 4);
        if (body.size() % 2)
            body.append('\0');
        return out + body;
    };
    auto text = [](const char *s) { return QByteArray(s) + '\0'; };
    QByteArray info = "INFO" + chunk("INAM", text("Quiet Groove")) + chunk("IART", text("Test Band"))
                      + chunk("IPRD", text("Silent Album")) + chunk("IPRT", text("3"));
    QByteArray fmt(16, '\0');
    qToLittleEndian<quint16>(1, fmt.data());         // PCM
    qToLittleEndian<quint16>(1, fmt.data() + 2);     // mono
    qToLittleEndian<quint32>(8000, fmt.data() + 4);  // rate
    qToLittleEndian<quint32>(16000, fmt.data() + 8); // bytes per second
    qToLittleEndian<quint16>(2, fmt.data() + 12);
    qToLittleEndian<quint16>(16, fmt.data() + 14);
    const QByteArray body = "WAVE" + chunk("fmt ", fmt) + chunk("LIST", info)
                            + chunk("data", QByteArray(8000 * 2 * 30, '\0'));
    writeFile(file, chunk("RIFF", body));

    PlayerState state;
    MprisPlayerBackend backend(bus.bus());
    NowPlayingMonitor monitor(state, backend);
    monitor.start();
    EXPECT_FALSE(state.track().has_value());

    auto process = std::make_unique<QProcess>();
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), bus.address);
    process->setProcessEnvironment(env);
    process->start(mpv, {"--no-config", "--script=" + plugin, "--ao=null", "--no-video",
                         "--really-quiet", "--idle=no", file});
    players.push_back(std::move(process));
    // mpv first announces the file by its name, then its tags once they are read.
    ASSERT_TRUE(waitUntil([&] {
        return state.track() && state.track()->album == "Silent Album" && state.isPlaying();
    }, 15s)) << "mpv never showed up as playing its tagged file";
    EXPECT_EQ(state.track()->title, "Quiet Groove");
    EXPECT_EQ(state.track()->artist, "Test Band");
    EXPECT_EQ(state.track()->album, "Silent Album");
    EXPECT_NEAR(state.track()->duration, 30.0, 0.5);
    EXPECT_EQ(state.track()->source.id.left(26), "org.mpris.MediaPlayer2.mpv");
    EXPECT_TRUE(logText().contains("] ▶ Test Band — Quiet Groove (Silent Album)"));

    // Pausing it through MPRIS is seen through its PropertiesChanged.
    QDBusMessage pause = QDBusMessage::createMethodCall(state.track()->source.id,
                                                        "/org/mpris/MediaPlayer2",
                                                        "org.mpris.MediaPlayer2.Player", "Pause");
    bus.bus().call(pause);
    ASSERT_TRUE(waitUntil([&] { return !state.isPlaying(); }, 5s));
    EXPECT_TRUE(state.track().has_value());

    // Quitting it clears the room.
    players.back()->terminate();
    ASSERT_TRUE(waitUntil([&] { return !state.track().has_value(); }, 10s));
}
