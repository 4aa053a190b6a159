// A player's properties as MPRIS hands them over (PlaybackStatus, Position and the Metadata map,
// wrapped or not in D-Bus variants), read into a snapshot, and what the room then does with it.
#include "FuzzSupport.h"
#include "PlayerChain.h"

#include "platform/linux/MprisPlayerBackend.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzSupport::init();
    static const QStringList keys{
        QStringLiteral("PlaybackStatus"), QStringLiteral("Metadata"),          QStringLiteral("Position"),
        QStringLiteral("xesam:title"),    QStringLiteral("xesam:artist"),      QStringLiteral("xesam:album"),
        QStringLiteral("mpris:length"),   QStringLiteral("xesam:trackNumber"), QStringLiteral("mpris:artUrl"),
        QStringLiteral("mpris:trackid"),  QStringLiteral("Playing"),           QStringLiteral("Paused"),
        QStringLiteral("Stopped")};
    FuzzSupport::Reader in(data, size);
    QVariantMap properties;
    while (!in.done()) properties.insert(in.oneOf(keys), in.value(keys));
    const PlayerSource source{QStringLiteral("org.mpris.MediaPlayer2.fuzz"), QStringLiteral("Fuzz"),
                              QStringLiteral("Fuzz")};
    if (const auto snapshot = MprisPlayerBackend::snapshotFrom(source, properties)) followSnapshot(*snapshot);
    MprisPlayerBackend::ordered(properties.keys());
    return 0;
}
