// The reply of a player's state script: a list of texts and numbers as the Apple-event descriptor
// gives them, read for Spotify or for Music, and what the room then does with it.
#include "FuzzSupport.h"
#include "PlayerChain.h"

#include "core/music/AppleScriptPlayerQuery.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzSupport::init();
    FuzzSupport::Reader in(data, size);
    const PlayerSource source = in.byte() & 1 ? AppleScriptPlayerQuery::spotify() : AppleScriptPlayerQuery::music();
    static const QStringList words{QStringLiteral("playing"), QStringLiteral("paused"), QStringLiteral("stopped")};
    QVariantList items;
    for (int n = in.byte() % 12; n > 0; --n) {
        if (in.byte() % 3 == 0)
            items.append(in.oneOf(words));
        else
            items.append(in.value({}, 3));
    }
    if (const auto snapshot = AppleScriptPlayerQuery::parseReply(source, items)) followSnapshot(*snapshot);
    return 0;
}
