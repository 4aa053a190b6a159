#include "core/music/AlbumHash.h"

quint64 albumHash(const QString &text)
{
    quint64 hash = 0xcbf29ce484222325ULL;
    const QByteArray bytes = text.toUtf8();
    for (const char c : bytes) {
        hash ^= quint64(quint8(c));
        hash *= 0x100000001b3ULL;
    }
    return hash;
}

QString albumCoverFileName(const QString &album)
{
    return QString::asprintf("%016llx.jpg", static_cast<unsigned long long>(albumHash(album)));
}
