#pragma once

#include "core/music/PlayerSourceBackend.h"

#include <QString>
#include <QVariantList>
#include <optional>

// The texts the macOS side sends to Spotify and Music, and the reading of their replies. Kept
// apart from the Apple-event code so that it is the same, and tested, everywhere; the Mac
// backend only compiles and runs the script and hands the reply's items over.
namespace AppleScriptPlayerQuery {

// The two scripted players, in tie-break order.
PlayerSource spotify();
PlayerSource music();

// The state query of a player: one list of state, title, artist, album, duration, position
// and two player-specific items, or the text "stopped".
QString scriptText(const PlayerSource &source);
// Music's cover of the current track, as raw data.
QString musicArtworkScript();

// Reads a reply's list items (index 0 here is the script's item 1). Items are texts or numbers
// as the Apple-event descriptor gave them; a missing or mistyped text reads as empty, a
// missing number as 0. Fewer than 6 items, including a lone "stopped", gives nothing.
std::optional<PlayerSourceBackend::Snapshot> parseReply(const PlayerSource &source, const QVariantList &items);

}  // namespace AppleScriptPlayerQuery
