#pragma once

#include <QImage>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QThreadPool>

class Settings;

// The covers of the albums played before, most recent first, kept on disk so that the record
// stack beside the turntable survives a restart. The folder holds "index.json" (a JSON array of
// {"album", "file"}) and one JPEG per album, named by albumCoverFileName().
//
// Covers are encoded and written, and the index saved, on a writer thread of the store's own, in
// the order they were asked; the list itself changes at once. Every file is
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
    ~HistoryStore() override;

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
    // Waits for the writes under way, and drops an entry whose cover could not be written.
    void flush();
    // Deletes every cover and the index, emits changed().
    void clear();

    // The square JPEG bytes stored for a cover; empty when the image cannot be encoded.
    static QByteArray encodeCover(const QImage &image);

signals:
    void changed();

private:
    void load();
    QByteArray indexBytes() const;
    // Queues the index as it is now, then the removal of `dropped` covers.
    void save(const QStringList &dropped = {});
    void forget(const Entry &entry);
    // Drops the oldest entries past the limit; gives their files, for removal once the index is saved.
    QStringList cutToLimit();
    void removeFile(const QString &name) const;

    const Settings &settings;
    QString folder;
    QList<Entry> list;
    QThreadPool writer;  // one thread: what lands on disk keeps the order it was asked in
};
