#include "core/music/AppleScriptPlayerQuery.h"

#include <cmath>
#include <limits>

namespace AppleScriptPlayerQuery {

namespace {

bool isSpotify(const PlayerSource &source) { return source.id == spotify().id; }

QString textAt(const QVariantList &items, int index)
{
    if (index >= items.size()) return {};
    const QVariant &v = items.at(index);
    return v.typeId() == QMetaType::QString ? v.toString() : QString();
}

double numberAt(const QVariantList &items, int index)
{
    if (index >= items.size()) return 0;
    const QVariant &v = items.at(index);
    switch (v.typeId()) {
    case QMetaType::Double:
    case QMetaType::Float:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
        return v.toDouble();
    default:
        return 0;
    }
}

int integerAt(const QVariantList &items, int index)
{
    // A number no int holds is as unknown as a missing one.
    const double n = numberAt(items, index);
    return std::isfinite(n) && std::abs(n) <= std::numeric_limits<int>::max() ? int(n) : 0;
}

}  // namespace

PlayerSource spotify()
{
    return {QStringLiteral("com.spotify.client"), QStringLiteral("Spotify"), QStringLiteral("Spotify")};
}

PlayerSource music()
{
    return {QStringLiteral("com.apple.Music"), QStringLiteral("Music"), QStringLiteral("Apple Music")};
}

QString scriptText(const PlayerSource &source)
{
    const QString tail = isSpotify(source) ? QStringLiteral(", artwork url of t, track number of t")
                                           : QStringLiteral(", track number of t, track count of t");
    return QStringLiteral("tell application \"") + source.name +
           QStringLiteral("\"\n    if player state is stopped then return \"stopped\"\n"
                          "    set t to current track\n"
                          "    return {player state as string, name of t, artist of t, "
                          "album of t, duration of t, player position") +
           tail + QStringLiteral("}\nend tell");
}

QString musicArtworkScript()
{
    return QStringLiteral("tell application \"Music\" to get data of artwork 1 of current track");
}

std::optional<PlayerSourceBackend::Snapshot> parseReply(const PlayerSource &source, const QVariantList &items)
{
    if (items.size() < 6) return std::nullopt;
    const bool spotifyReply = isSpotify(source);
    PlayerSourceBackend::Snapshot s;
    s.isPlaying = textAt(items, 0) == QLatin1String("playing");
    s.track.title = textAt(items, 1);
    s.track.artist = textAt(items, 2);
    s.track.album = textAt(items, 3);
    s.track.duration = spotifyReply ? numberAt(items, 4) / 1000.0 : numberAt(items, 4);
    s.track.source = source;
    s.position = numberAt(items, 5);
    if (spotifyReply) {
        const QString text = textAt(items, 6);
        const QUrl url(text, QUrl::StrictMode);
        if (!text.isEmpty() && url.isValid() && !url.scheme().isEmpty()) s.artworkURL = url;
        s.track.trackNumber = integerAt(items, 7);
        s.track.trackCount = 0;
    } else {
        s.track.trackNumber = integerAt(items, 6);
        s.track.trackCount = integerAt(items, 7);
    }
    return s;
}

}  // namespace AppleScriptPlayerQuery
