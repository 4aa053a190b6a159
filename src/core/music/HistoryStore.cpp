#include "core/music/HistoryStore.h"

#include "core/music/AlbumHash.h"
#include "core/scene/SceneLocation.h"
#include "core/app/SafeText.h"
#include "core/app/Settings.h"
#include "core/app/StateFile.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QPointer>
#include <QColorSpace>
#include <QDir>
#include <QFile>
#include <QImageWriter>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

namespace {

QString indexName() { return QStringLiteral("index.json"); }

// Names come from our own index, but an edited index must not reach outside the folder.
bool isPlainName(const QString &name)
{
    return !name.isEmpty() && !name.contains(QLatin1Char('/')) && !name.startsWith(QLatin1Char('.'));
}

}  // namespace

HistoryStore::HistoryStore(const Settings &settings, QObject *parent)
    : HistoryStore(settings, SceneLocation::supportDirectory() + QStringLiteral("/history"), parent)
{
}

HistoryStore::HistoryStore(const Settings &settings, const QString &dir, QObject *parent)
    : QObject(parent)
    , settings(settings)
    , folder(dir)
{
    writer.setMaxThreadCount(1);
    QDir().mkpath(folder);
    load();
    // A lower limit takes effect at once, not with the next album (a higher one waits for albums).
    connect(&settings, &Settings::changed, this, [this](const QString &key) {
        if (key == QLatin1String("stackLimit") && list.size() > std::max(1, this->settings.stackLimit())) trim();
    });
}

void HistoryStore::load()
{
    list.clear();
    // A damaged index gives the entries before the damage.
    const auto doc = StateFile::readJson(QDir(folder).filePath(indexName()));
    if (!doc || !doc->isArray()) return;
    QList<Entry> decoded;
    for (const QJsonValue &v : doc->array()) {
        const QJsonObject o = v.toObject();
        const QJsonValue album = o.value(QStringLiteral("album"));
        const QJsonValue name = o.value(QStringLiteral("file"));
        // One bad entry makes the whole index undecodable, as a typed decode would.
        if (!v.isObject() || !album.isString() || !name.isString() || !isPlainName(name.toString())) return;
        // An index written before names were cut may hold a megabyte of one.
        decoded.append({SafeText::field(album.toString()), name.toString()});
    }
    list = decoded;
}

QByteArray HistoryStore::indexBytes() const
{
    QJsonArray array;
    for (const Entry &e : list)
        array.append(QJsonObject{{QStringLiteral("album"), e.album}, {QStringLiteral("file"), e.file}});
    return QJsonDocument(array).toJson(QJsonDocument::Compact);
}

void HistoryStore::save(const QStringList &dropped)
{
    const QString dir = folder;
    writer.start([dir, bytes = indexBytes(), dropped] {
        StateFile::write(QDir(dir).filePath(indexName()), bytes);
        for (const QString &name : dropped)
            if (isPlainName(name)) QFile::remove(QDir(dir).filePath(name));
    });
}

void HistoryStore::flush()
{
    writer.waitForDone();
    // A cover that failed takes its entry back out, which saves the index once more.
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
    writer.waitForDone();
}

HistoryStore::~HistoryStore() { writer.waitForDone(); }

void HistoryStore::forget(const Entry &entry)
{
    if (list.removeAll(entry) > 0) save();
}

QByteArray HistoryStore::encodeCover(const QImage &image)
{
    if (image.isNull()) return {};
    const int side = std::min(std::max(image.width(), image.height()), maxSide);
    QImage source = image;
    // Pixels in another colour space are brought to sRGB before they are averaged by scaling.
    if (source.colorSpace().isValid() && source.colorSpace() != QColorSpace::SRgb)
        source.convertToColorSpace(QColorSpace::SRgb);
    QImage square = source.convertToFormat(QImage::Format_RGB32)
                        .scaled(side, side, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    square.setColorSpace(QColorSpace::SRgb);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    QImageWriter writer(&buffer, "jpeg");
    writer.setQuality(85);
    if (!writer.write(square)) return {};
    return bytes;
}

void HistoryStore::record(const QImage &image, const QString &albumName)
{
    const QString album = SafeText::field(albumName);
    if (album.isEmpty()) return;
    list.removeIf([&](const Entry &e) { return e.album == album; });
    const Entry entry{album, albumCoverFileName(album)};
    if (!image.isNull()) list.prepend(entry);
    const QStringList dropped = cutToLimit();
    if (image.isNull()) return save(dropped);

    // The cover goes first and the index after it: a crash in between leaves a stray cover, never
    // an entry without one.
    const QString path = QDir(folder).filePath(entry.file);
    QPointer<HistoryStore> self(this);
    writer.start([self, image, path, entry] {
        const QByteArray jpeg = encodeCover(image);
        QSaveFile out(path);
        if (jpeg.isEmpty() || !out.open(QIODevice::WriteOnly) || out.write(jpeg) != jpeg.size() || !out.commit())
            QMetaObject::invokeMethod(
                self.data(),
                [self, entry] {
                    if (self) self->forget(entry);
                },
                Qt::QueuedConnection);
    });
    save(dropped);
}

QImage HistoryStore::previous(const QString &excludingAlbum) const
{
    const QString excluded = SafeText::field(excludingAlbum);
    for (const Entry &e : list) {
        if (e.album == excluded) continue;
        return QImage(QDir(folder).filePath(e.file));
    }
    return {};
}

QStringList HistoryStore::cutToLimit()
{
    const int limit = std::max(1, settings.stackLimit());
    QStringList dropped;
    while (list.size() > limit) dropped.append(list.takeLast().file);
    return dropped;
}

void HistoryStore::trim()
{
    save(cutToLimit());
    emit changed();
}

void HistoryStore::clear()
{
    writer.waitForDone();
    for (const Entry &e : std::as_const(list)) removeFile(e.file);
    // Covers left behind by an index that could not be read go too.
    const QStringList stray = QDir(folder).entryList({QStringLiteral("*.jpg")}, QDir::Files);
    for (const QString &name : stray) removeFile(name);
    list.clear();
    QFile::remove(QDir(folder).filePath(indexName()));
    QFile::remove(QDir(folder).filePath(indexName() + QStringLiteral(".bad")));
    emit changed();
}

void HistoryStore::removeFile(const QString &name) const
{
    if (!isPlainName(name)) return;
    QFile::remove(QDir(folder).filePath(name));
}
