#include "core/music/NowPlayingMonitor.h"

#include "core/music/CoverLoader.h"
#include "core/scheduling/MediaClock.h"

#include "core/app/Log.h"

#include <QNetworkAccessManager>
#include <QTimer>

using Outcome = PlayerSourceBackend::Outcome;

// One look at every player: its choice waits for all the answers.
struct NowPlayingMonitor::Round {
    QList<PlayerSource> sources;
    std::vector<std::optional<Snapshot>> answers;
    int left = 0;
};

NowPlayingMonitor::NowPlayingMonitor(PlayerState &state, PlayerSourceBackend &backend, QNetworkAccessManager *network,
                                     QObject *parent)
    : QObject(parent)
    , state(state)
    , backend(backend)
    , network(network)
    , clock(&MediaClock::steady)
{
    if (!this->network) this->network = new QNetworkAccessManager(this);
    coverLoader = std::make_unique<CoverLoader>(*this->network);
}

NowPlayingMonitor::~NowPlayingMonitor() = default;

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
    auto round = std::make_shared<Round>();
    for (const PlayerSource &source : backend.sources())
        if (backend.isRunning(source) && clock() >= players[source.id].quietUntil) round->sources.append(source);
    round->answers.resize(round->sources.size());
    round->left = int(round->sources.size());
    if (round->left == 0) return settleRound(*round);
    for (int i = 0; i < round->sources.size(); ++i) {
        const PlayerSource source = round->sources[i];
        backend.query(source, [this, round, i, source](Outcome outcome, const std::optional<Snapshot> &snapshot) {
            if (outcome == Outcome::timedOut) answered(source, outcome, snapshot);
            round->answers[i] = snapshot;
            if (--round->left == 0) settleRound(*round);
        });
    }
}

void NowPlayingMonitor::settleRound(const Round &round)
{
    const std::optional<Snapshot> *chosen = nullptr;
    for (const auto &answer : round.answers) {
        if (!answer) continue;
        if (answer->isPlaying) {
            chosen = &answer;
            break;
        }
        if (!chosen) chosen = &answer;
    }
    if (chosen)
        apply(**chosen);
    else
        clear();
    emit refreshed();
}

void NowPlayingMonitor::refresh(const PlayerSource &from)
{
    if (!backend.isRunning(from)) {
        players.remove(from.id);
        if (state.track() && state.track()->source.id == from.id) clear();
        return;
    }
    Player &player = players[from.id];
    if (clock() < player.quietUntil) return;
    if (player.asking) {
        player.askAgain = true;
        return;
    }
    if (player.deferred) return;
    const qint64 wait = player.lastAsked.isValid() ? minQueryIntervalMs - player.lastAsked.elapsed() : 0;
    if (wait <= 0) return ask(from);
    player.deferred = true;
    QTimer::singleShot(int(wait), this, [this, from] {
        const auto found = players.find(from.id);
        if (found == players.end() || !found->deferred) return;
        found->deferred = false;
        ask(from);
    });
}

void NowPlayingMonitor::ask(const PlayerSource &source)
{
    Player &player = players[source.id];
    player.asking = true;
    player.lastAsked.start();
    backend.query(source, [this, source](Outcome outcome, const std::optional<Snapshot> &snapshot) {
        answered(source, outcome, snapshot);
    });
}

void NowPlayingMonitor::answered(const PlayerSource &source, Outcome outcome, const std::optional<Snapshot> &snapshot)
{
    const auto found = players.find(source.id);
    const bool again = found != players.end() && found->askAgain;
    if (found != players.end()) found->asking = found->askAgain = false;

    if (outcome == Outcome::timedOut) {
        if (found == players.end() || clock() < found->quietUntil) return;
        found->quietUntil = clock() + quietAfterTimeout;
        Log::write(QStringLiteral("[") + source.logName + QStringLiteral("] não respondeu; ignorado por ") +
                   QString::number(quietAfterTimeout) + QStringLiteral(" s"));
        return;
    }
    if (snapshot) {
        const auto &shown = state.track();
        const bool otherPlays = state.isPlaying() && shown && shown->source.id != source.id;
        if (snapshot->isPlaying || !otherPlays) apply(*snapshot);
    } else if (state.track() && state.track()->source.id == source.id) {
        clear();
    }
    if (again) refresh(source);
}

void NowPlayingMonitor::apply(const Snapshot &snapshot)
{
    const bool differs = state.track() != snapshot.track;
    state.setTrack(snapshot.track);
    state.setPlaying(snapshot.isPlaying);
    state.setPosition(snapshot.position);
    state.setPositionDate(clock());
    if (differs) {
        const Track &t = snapshot.track;
        Log::write(QStringLiteral("[") + t.source.logName + QStringLiteral("] ") +
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
    coverLoader->cancel();
}

void NowPlayingMonitor::loadArtwork(const Snapshot &snapshot)
{
    const Track &t = snapshot.track;
    const QString key = t.source.id + QStringLiteral("|") + t.artist + QStringLiteral("|") + t.album;
    // Every track of an album and every notification would otherwise fetch the same cover.
    if (artworkKey == key) return;
    artworkKey = key;

    if (!snapshot.artworkURL) {
        coverLoader->cancel();
        state.setArtwork(QImage());
        return;
    }
    const QUrl url = *snapshot.artworkURL;
    const QString playerName = t.source.name;
    const QString what = url.isLocalFile() ? url.toLocalFile() : url.toString();
    coverLoader->onLoaded = [this, playerName, what](const QImage &image, const QString &failure) {
        finishArtwork(playerName, what, image, failure);
    };
    coverLoader->load(url);
}

void NowPlayingMonitor::finishArtwork(const QString &playerName, const QString &what, const QImage &image,
                                      const QString &failure)
{
    state.setArtwork(image);
    Log::write(QStringLiteral("Capa ") + playerName + QStringLiteral(": ") +
               (image.isNull() ? QStringLiteral("falhou ") : QStringLiteral("ok ")) + what +
               (failure.isEmpty() ? QString() : QStringLiteral(" (") + failure + QStringLiteral(")")));
}
