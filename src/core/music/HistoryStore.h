#pragma once

#include <QImage>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

class Settings;

// The covers of the albums played before, most recent first, kept on disk so that the record
// stack beside the turntable survives a restart. The folder holds "index.json" (a JSON array of
// {"album", "file"}) and one JPEG per album, named by albumCoverFileName().
//
// File work is synchronous and small (at most the stack limit of 512-pixel JPEGs). Every file is
// replaced whole, so a crash leaves the index as it was or as it became. Failures are silent: a
// cover that cannot be written leaves the stack without it; a damaged index gives the entries
// before the damage (logged, kept aside as "index.json.bad"), an undecodable one
// is an empty stack. Lowering "stackLimit" trims the stack at once (see trim()). Main thread
// only; `settings` must outlive the store.
class HistoryStore : public QObject {
    Q_OBJECT
public:
    struct Entry {
        QString album;
        QString file;  // name inside dir()
        bool operator==(const Entry &) const = default;
    };

    // Covers are at most this many pixels square.
    static constexpr int maxSide = 512;

    // The application's folder: SceneLocation::supportDirectory() + "/history".
    explicit HistoryStore(const Settings &settings, QObject *parent = nullptr);
    // A given folder (tests).
    HistoryStore(const Settings &settings, const QString &dir, QObject *parent = nullptr);

    QString dir() const { return folder; }
    const QList<Entry> &entries() const { return list; }

    // Puts the album's cover on top, once; trims to the limit and saves the index. The name is
    // kept as SafeText::field() gives it (so a player's megabyte title stays 300 characters here
    // too); an empty one is ignored. Does not emit changed(): whoever records already knows.
    void record(const QImage &image, const QString &album);
    // The cover of the most recent album other than `album`; null when there is none or its
    // file cannot be read.
    QImage previous(const QString &excludingAlbum) const;
    // Cuts the stack to the limit, saves the index, emits changed().
    void trim();
    // Deletes every cover and the index, emits changed().
    void clear();

    // The square JPEG bytes stored for a cover; empty when the image cannot be encoded.
    static QByteArray encodeCover(const QImage &image);

signals:
    void changed();

private:
    void load();
    void save() const;
    // Drops the oldest entries past the limit; gives their files, for removal once the index is saved.
    QStringList cutToLimit();
    void removeFile(const QString &name) const;

    const Settings &settings;
    QString folder;
    QList<Entry> list;
};
