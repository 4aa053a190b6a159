#include "FuzzSupport.h"

#include <QCoreApplication>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <cstring>

namespace FuzzSupport {

namespace {

QTemporaryDir *scratchRoot = nullptr;

}  // namespace

void init()
{
    static const bool once = [] {
        // In memory where there is such a folder: every input is written and synced to disk.
        const QString base =
            QFileInfo(QStringLiteral("/dev/shm")).isWritable() ? QStringLiteral("/dev/shm") : QDir::tempPath();
        scratchRoot = new QTemporaryDir(base + QStringLiteral("/turnelo-fuzz-XXXXXX"));
        const QByteArray root = QFile::encodeName(scratchRoot->path());
        for (const char *name : {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME"})
            qputenv(name, root + "/" + name);
        qputenv("QT_QPA_PLATFORM", "offscreen");
        static int argc = 1;
        static char name[] = "turnelo-fuzz";
        static char *argv[] = {name, nullptr};
        new QCoreApplication(argc, argv);
        // The temporary folder goes with the process, also when libFuzzer ends it.
        std::atexit([] { delete scratchRoot; });
        return true;
    }();
    (void)once;
}

QString scratch()
{
    init();
    const QString dir = scratchRoot->path() + QStringLiteral("/work");
    QDir(dir).removeRecursively();
    QDir().mkpath(dir);
    return dir;
}

QString writeScratch(const QString &name, const uint8_t *data, size_t size)
{
    const QString path = scratch() + QLatin1Char('/') + name;
    QFile file(path);
    if (file.open(QIODevice::WriteOnly)) file.write(reinterpret_cast<const char *>(data), qint64(size));
    return path;
}

uint8_t Reader::byte()
{
    if (left == 0) return 0;
    --left;
    return *p++;
}

quint32 Reader::u32()
{
    quint32 v = 0;
    for (int i = 0; i < 4; ++i) v = (v << 8) | byte();
    return v;
}

double Reader::real()
{
    quint64 bits = (quint64(u32()) << 32) | u32();
    double d;
    std::memcpy(&d, &bits, sizeof d);
    return d;
}

QString Reader::text()
{
    const size_t n = std::min<size_t>(byte() % 65, left);
    const QString s = QString::fromUtf8(reinterpret_cast<const char *>(p), qsizetype(n));
    p += n;
    left -= n;
    return s;
}

QString Reader::oneOf(const QStringList &choices)
{
    const int pick = byte() % (choices.size() + 1);
    return pick < choices.size() ? choices.at(pick) : text();
}

QVariant Reader::value(const QStringList &keys, int depth)
{
    switch (byte() % 11) {
    case 0:
        return text();
    case 1:
        return qlonglong(quint64(u32()) << 32 | u32());
    case 2:
        return int(u32());
    case 3:
        return real();
    case 4:
        return bool(byte() & 1);
    case 5:
        return double(int(u32()));
    case 6: {
        QStringList list;
        for (int n = byte() % 4; n > 0; --n) list.append(text());
        return list;
    }
    case 7:
        if (depth < 3) return QVariant::fromValue(QDBusVariant(value(keys, depth + 1)));
        return {};
    case 8:
        if (depth < 3) {
            QVariantMap map;
            for (int n = byte() % 8; n > 0 && !done(); --n) map.insert(oneOf(keys), value(keys, depth + 1));
            return map;
        }
        return {};
    case 9:
        return QVariant::fromValue(
            QDBusObjectPath(QStringLiteral("/org/mpris/MediaPlayer2/Track/") + QString::number(byte())));
    default:
        return QVariant();
    }
}

}  // namespace FuzzSupport
