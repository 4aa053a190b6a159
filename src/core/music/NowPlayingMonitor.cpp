#include "core/music/NowPlayingMonitor.h"

#include "core/scheduling/MediaClock.h"

#include "core/app/Log.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

NowPlayingMonitor::NowPlayingMonitor(PlayerState &state, PlayerSourceBackend &backend, QNetworkAccessManager *network,
                                     QObject *parent)
    : QObject(parent)
    , state(state)
    , backend(backend)
    , network(network)
    , clock(&MediaClock::steady)
{
    if (!this->network) this->network = new QNetworkAccessManager(this);
}

void NowPlayingMonitor::setClock(std::function<double()> c) { clock = std::move(c); }

void NowPlayingMonitor::start()
{
    if (started) return;
    started = true;
    connect(&backend, &PlayerSourceBackend::notified, this, [this](const PlayerSource &source) { refresh(source); });
    backend.startWatching();
    refreshAll();
}

void NowPlayingMonitor::refreshAll()
{
    std::optional<std::pair<PlayerSource, Snapshot>> chosen;
    for (const PlayerSource &source : backend.sources()) {
        if (!backend.isRunning(source)) continue;
        const auto snapshot = backend.query(source);
        if (!snapshot) continue;
        if (snapshot->isPlaying) {
            chosen.emplace(source, *snapshot);
            break;
        }
        if (!chosen) chosen.emplace(source, *snapshot);
    }
    if (chosen)
        apply(chosen->first, chosen->second);
    else
        clear();
}

void NowPlayingMonitor::refresh(const PlayerSource &from)
{
    if (backend.isRunning(from)) {
        if (const auto snapshot = backend.query(from)) {
            const auto &shown = state.track();
            const bool otherPlays = state.isPlaying() && shown && shown->source.id != from.id;
            if (!snapshot->isPlaying && otherPlays) return;
            apply(from, *snapshot);
            return;
        }
    }
    if (state.track() && state.track()->source.id == from.id) clear();
}

void NowPlayingMonitor::apply(const PlayerSource &source, const Snapshot &snapshot)
{
    const bool differs = state.track() != snapshot.track;
    state.setTrack(snapshot.track);
    state.setPlaying(snapshot.isPlaying);
    state.setPosition(snapshot.position);
    state.setPositionDate(clock());
    if (differs) {
        const Track &t = snapshot.track;
        Log::write(QStringLiteral("[") + source.logName + QStringLiteral("] ") +
                   (snapshot.isPlaying ? QStringLiteral("▶") : QStringLiteral("⏸")) + QStringLiteral(" ") + t.artist +
                   QStringLiteral(" — ") + t.title + QStringLiteral(" (") + t.album + QStringLiteral(")"));
    }
    loadArtwork(snapshot);
}

void NowPlayingMonitor::clear()
{
    if (state.track()) Log::write(QStringLiteral("Nada tocando"));
    state.setTrack(std::nullopt);
    state.setArtwork(QImage());
    state.setPlaying(false);
    artworkKey.reset();
}

void NowPlayingMonitor::loadArtwork(const Snapshot &snapshot)
{
    const Track &t = snapshot.track;
    const QString key = t.source.logName + QStringLiteral("|") + t.artist + QStringLiteral("|") + t.album;
    // Every track of an album and every notification would otherwise fetch the same cover.
    if (artworkKey == key) return;
    artworkKey = key;

    const QString playerName = t.source.name;
    if (!snapshot.artworkURL) {
        state.setArtwork(QImage());
        return;
    }
    const QUrl url = *snapshot.artworkURL;
    if (url.isLocalFile()) {
        const QString path = url.toLocalFile();
        QImage image;
        QFile file(path);
        if (file.open(QIODevice::ReadOnly)) image.loadFromData(file.readAll());
        finishArtwork(playerName, path, image);
        return;
    }
    const QString scheme = url.scheme().toLower();
    if (scheme != QLatin1String("http") && scheme != QLatin1String("https")) {
        finishArtwork(playerName, url.toString(), QImage());
        return;
    }
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    QNetworkReply *reply = network->get(request);
    connect(reply, &QNetworkReply::finished, this, [this, reply, key, playerName, url] {
        reply->deleteLater();
        // The album changed while this cover was on its way.
        if (artworkKey != key) return;
        QImage image;
        if (reply->error() == QNetworkReply::NoError) image.loadFromData(reply->readAll());
        finishArtwork(playerName, url.toString(), image);
    });
}

void NowPlayingMonitor::finishArtwork(const QString &playerName, const QString &what, const QImage &image)
{
    state.setArtwork(image);
    Log::write(QStringLiteral("Capa ") + playerName + QStringLiteral(": ") +
               (image.isNull() ? QStringLiteral("falhou") : QStringLiteral("ok")) + QStringLiteral(" ") + what);
}
