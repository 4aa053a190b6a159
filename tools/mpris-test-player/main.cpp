// turnelo-mpris-player: a player that plays nothing but answers on the session bus exactly as an
// MPRIS player does, so the now-playing monitor can be tested against the real interfaces.
//
//   turnelo-mpris-player --name <bus suffix> --identity <Identity> [--status Playing|Paused|Stopped]
//                     [--position <s>] --track "title|artist[;artist]|album|seconds|number|artUrl" ...
//                     [--slow <ms>] [--flood <changes per second>,<seconds>]
//
// Play, Pause, PlayPause, Stop, Next, Previous, Seek, SetPosition and Quit behave as their
// names say and emit PropertiesChanged or Seeked; Next and Previous walk the --track list.
// A hostile player for the tests: --slow makes every read of its state take that long (the
// player is stuck meanwhile); --flood makes it change album that often, from its own thread,
// starting at its first Play call, each change a new album named "Flood <n>".

#include <QCoreApplication>
#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QElapsedTimer>
#include <QStringList>
#include <QThread>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {

struct TrackInfo {
    QString title;
    QStringList artists;
    QString album;
    double seconds = 0;
    int number = 0;
    QString artUrl;
};

class Player : public QObject {
    Q_OBJECT
public:
    QString identity;
    QList<TrackInfo> tracks;
    int index = 0;
    QString status = QStringLiteral("Playing");
    double basePosition = 0;  // seconds at `since`
    QElapsedTimer since;
    int slowMs = 0;
    double floodRate = 0, floodSeconds = 0;
    std::atomic<int> floods{0};
    bool flooding = false;

    void startFlood()
    {
        if (floodRate <= 0 || flooding) return;
        flooding = true;
        // Detached: the player never goes before the process does.
        std::thread([this] {
            const auto step = std::chrono::duration<double>(1.0 / floodRate);
            const auto begin = std::chrono::steady_clock::now();
            for (int n = 1; n <= int(floodRate * floodSeconds); ++n) {
                std::this_thread::sleep_until(begin + n * step);
                floods = n;
                changed({{QStringLiteral("Metadata"), metadata()}});
            }
        }).detach();
    }

    double position() const
    {
        const double p = basePosition + (status == QLatin1String("Playing") ? since.elapsed() / 1000.0 : 0.0);
        return p;
    }

    QVariantMap metadata() const
    {
        QVariantMap m;
        if (tracks.isEmpty()) return m;
        const TrackInfo &t = tracks.at(index);
        const int flood = floods;
        m.insert(QStringLiteral("mpris:trackid"),
                 QVariant::fromValue(QDBusObjectPath(QStringLiteral("/track/%1").arg(index))));
        m.insert(QStringLiteral("xesam:title"), flood ? QStringLiteral("Flood %1").arg(flood) : t.title);
        m.insert(QStringLiteral("xesam:artist"), t.artists);
        m.insert(QStringLiteral("xesam:album"), flood ? QStringLiteral("Flood %1").arg(flood) : t.album);
        m.insert(QStringLiteral("mpris:length"), qlonglong(t.seconds * 1e6));
        if (t.number > 0) m.insert(QStringLiteral("xesam:trackNumber"), t.number);
        if (!t.artUrl.isEmpty()) m.insert(QStringLiteral("mpris:artUrl"), t.artUrl);
        return m;
    }

    void changed(const QVariantMap &properties)
    {
        QDBusMessage signal = QDBusMessage::createSignal(QStringLiteral("/org/mpris/MediaPlayer2"),
                                                         QStringLiteral("org.freedesktop.DBus.Properties"),
                                                         QStringLiteral("PropertiesChanged"));
        signal << QStringLiteral("org.mpris.MediaPlayer2.Player") << properties << QStringList();
        QDBusConnection::sessionBus().send(signal);
    }

    void setStatus(const QString &s)
    {
        if (s == status) return;
        basePosition = position();
        since.restart();
        status = s;
        changed({{QStringLiteral("PlaybackStatus"), status}});
    }

    void moveTo(int i)
    {
        if (tracks.isEmpty()) return;
        index = (i + tracks.size()) % tracks.size();
        basePosition = 0;
        since.restart();
        changed({{QStringLiteral("Metadata"), metadata()}});
    }

    void seekTo(double seconds)
    {
        basePosition = seconds;
        since.restart();
        QDBusMessage signal =
            QDBusMessage::createSignal(QStringLiteral("/org/mpris/MediaPlayer2"),
                                       QStringLiteral("org.mpris.MediaPlayer2.Player"), QStringLiteral("Seeked"));
        signal << qlonglong(seconds * 1e6);
        QDBusConnection::sessionBus().send(signal);
    }
};

class RootAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.mpris.MediaPlayer2")
    Q_PROPERTY(QString Identity READ identity)
    Q_PROPERTY(bool CanQuit READ yes)
    Q_PROPERTY(bool CanRaise READ no)
    Q_PROPERTY(bool HasTrackList READ no)
    Q_PROPERTY(QStringList SupportedUriSchemes READ none)
    Q_PROPERTY(QStringList SupportedMimeTypes READ none)
public:
    RootAdaptor(Player *p)
        : QDBusAbstractAdaptor(p)
        , player(p)
    {
    }
    QString identity() const { return player->identity; }
    bool yes() const { return true; }
    bool no() const { return false; }
    QStringList none() const { return {}; }
public slots:
    void Raise() {}
    void Quit() { QTimer::singleShot(0, qApp, &QCoreApplication::quit); }

private:
    Player *player;
};

class PlayerAdaptor : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.mpris.MediaPlayer2.Player")
    Q_PROPERTY(QString PlaybackStatus READ status)
    Q_PROPERTY(QVariantMap Metadata READ metadata)
    Q_PROPERTY(qlonglong Position READ position)
    Q_PROPERTY(double Rate READ one)
    Q_PROPERTY(double MinimumRate READ one)
    Q_PROPERTY(double MaximumRate READ one)
    Q_PROPERTY(double Volume READ one)
    Q_PROPERTY(bool CanGoNext READ yes)
    Q_PROPERTY(bool CanGoPrevious READ yes)
    Q_PROPERTY(bool CanPlay READ yes)
    Q_PROPERTY(bool CanPause READ yes)
    Q_PROPERTY(bool CanSeek READ yes)
    Q_PROPERTY(bool CanControl READ yes)
public:
    PlayerAdaptor(Player *p)
        : QDBusAbstractAdaptor(p)
        , player(p)
    {
    }
    QString status() const { return player->status; }
    QVariantMap metadata() const
    {
        if (player->slowMs > 0) QThread::msleep(player->slowMs);
        return player->metadata();
    }
    qlonglong position() const { return qlonglong(player->position() * 1e6); }
    double one() const { return 1.0; }
    bool yes() const { return true; }
public slots:
    void Play()
    {
        player->setStatus(QStringLiteral("Playing"));
        player->startFlood();
    }
    void Pause() { player->setStatus(QStringLiteral("Paused")); }
    void PlayPause()
    {
        player->setStatus(player->status == QLatin1String("Playing") ? QStringLiteral("Paused")
                                                                     : QStringLiteral("Playing"));
    }
    void Stop()
    {
        player->setStatus(QStringLiteral("Stopped"));
        player->basePosition = 0;
    }
    void Next() { player->moveTo(player->index + 1); }
    void Previous() { player->moveTo(player->index - 1); }
    void Seek(qlonglong offset) { player->seekTo(player->position() + offset / 1e6); }
    void SetPosition(const QDBusObjectPath &, qlonglong position) { player->seekTo(position / 1e6); }
    void OpenUri(const QString &) {}
signals:
    void Seeked(qlonglong position);

private:
    Player *player;
};

TrackInfo parseTrack(const QString &text)
{
    const QStringList f = text.split(QLatin1Char('|'));
    TrackInfo t;
    t.title = f.value(0);
    t.artists = f.value(1).split(QLatin1Char(';'), Qt::SkipEmptyParts);
    t.album = f.value(2);
    t.seconds = f.value(3).toDouble();
    t.number = f.value(4).toInt();
    t.artUrl = f.value(5);
    return t;
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    auto *player = new Player;
    QString suffix = QStringLiteral("testplayer");
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); i += 2) {
        const QString &key = args.at(i);
        const QString &value = args.at(i + 1);
        if (key == QLatin1String("--name"))
            suffix = value;
        else if (key == QLatin1String("--identity"))
            player->identity = value;
        else if (key == QLatin1String("--status"))
            player->status = value;
        else if (key == QLatin1String("--position"))
            player->basePosition = value.toDouble();
        else if (key == QLatin1String("--track"))
            player->tracks.append(parseTrack(value));
        else if (key == QLatin1String("--slow"))
            player->slowMs = value.toInt();
        else if (key == QLatin1String("--flood")) {
            player->floodRate = value.section(QLatin1Char(','), 0, 0).toDouble();
            player->floodSeconds = value.section(QLatin1Char(','), 1, 1).toDouble();
        } else {
            std::fprintf(stderr, "unknown option %s\n", qPrintable(key));
            return 2;
        }
    }
    player->since.start();
    new RootAdaptor(player);
    new PlayerAdaptor(player);
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected() || !bus.registerObject(QStringLiteral("/org/mpris/MediaPlayer2"), player) ||
        !bus.registerService(QStringLiteral("org.mpris.MediaPlayer2.") + suffix)) {
        std::fprintf(stderr, "cannot register on the session bus: %s\n", qPrintable(bus.lastError().message()));
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    return app.exec();
}

#include "main.moc"
