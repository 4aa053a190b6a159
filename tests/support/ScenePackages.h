#pragma once

// Builders for scene folders, zip packages (hostile ones too, by libarchive as the publisher) and catalogs.

#include "core/delivery/SceneCatalog.h"
#include "core/scene/PlateManifest.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QString>
#include <vector>

#include <archive.h>
#include <archive_entry.h>

namespace scenepackages {

// A manifest that the decoder accepts: framing "wide", one preset; `scenario` tells installs apart.
inline QByteArray manifestJson(const QString &scenario, const QStringList &framings = {QStringLiteral("wide")})
{
    QByteArray framingJson;
    for (const QString &f : framings) {
        if (!framingJson.isEmpty()) framingJson += ',';
        framingJson += '"' + f.toUtf8() +
                       R"(":{"size":[64,36],"camera":{"P":[[1,0,0,0],[0,1,0,0],[0,0,1,0]]},)"
                       R"("cover":{"corners":[[0,0],[8,0],[8,8],[0,8]],"mask":"cover_mask.png"},)"
                       R"("label":{"corners":[[0,0],[4,0],[4,4],[0,4]],"mask":"label_mask.png"}})";
    }
    return R"({"contract":1,"sun_keys":["noon"],"groups":["sun","fill"],"scenario":")" + scenario.toUtf8() +
           R"(","presets":{"dia":{"sun":1.0,"exposure":0.0}},"clock":[["12:00","dia"]],"framings":{)" + framingJson +
           "}}";
}

inline QByteArray randomBytes(qint64 n, quint32 seed)
{
    QByteArray out(n, Qt::Uninitialized);
    QRandomGenerator gen(seed);
    gen.fillRange(reinterpret_cast<quint32 *>(out.data()), n / 4);
    return out;
}

inline void put(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate)) f.write(bytes);
}

// A base scene folder; its plate holds `plateBytes` incompressible bytes, so the package is about that size.
inline void makeSceneFolder(const QString &dir, const QString &scenario, qint64 plateBytes, quint32 seed = 1)
{
    put(dir + QStringLiteral("/manifest.json"), manifestJson(scenario));
    put(dir + QStringLiteral("/wide/light/sun_noon.exr"), randomBytes(plateBytes, seed));
    for (const char *mask : {"/wide/cover_mask.png", "/wide/label_mask.png"}) put(dir + mask, QByteArray(64, '\x7f'));
}

// The "scenario" of the manifest in `sceneRoot`, or none when it is missing or does not decode.
inline std::optional<QString> scenarioAt(const QString &sceneRoot)
{
    QFile f(sceneRoot + QStringLiteral("/manifest.json"));
    if (!f.open(QIODevice::ReadOnly)) return std::nullopt;
    try {
        return PlateManifest::decode(f.readAll()).scenario;
    } catch (const std::exception &) {
        return std::nullopt;
    }
}

struct ZipEntry {
    QString name;
    QByteArray data;
    QString symlink = {};  // set: a symbolic link to this target
    bool directory = false;
};

inline bool writeZip(const QString &path, const std::vector<ZipEntry> &entries, bool store = true)
{
    archive *a = archive_write_new();
    archive_write_set_format_zip(a);
    if (store) archive_write_set_options(a, "zip:compression=store");
    if (archive_write_open_filename(a, QFile::encodeName(path).constData()) != ARCHIVE_OK) {
        archive_write_free(a);
        return false;
    }
    for (const ZipEntry &z : entries) {
        archive_entry *e = archive_entry_new();
        archive_entry_copy_pathname(e, z.name.toUtf8().constData());
        const bool link = !z.symlink.isEmpty(), file = !link && !z.directory;
        archive_entry_set_filetype(e, link ? AE_IFLNK : file ? AE_IFREG : AE_IFDIR);
        archive_entry_set_perm(e, link ? 0777 : file ? 0644 : 0755);
        if (link) archive_entry_copy_symlink(e, z.symlink.toUtf8().constData());
        if (file) archive_entry_set_size(e, z.data.size());
        archive_write_header(a, e);
        if (!z.data.isEmpty()) archive_write_data(a, z.data.constData(), size_t(z.data.size()));
        archive_entry_free(e);
    }
    const bool ok = archive_write_close(a) == ARCHIVE_OK;
    archive_write_free(a);
    return ok;
}

// Every file under `folder`, named relative to it, under an optional `prefix/`.
inline std::vector<ZipEntry> entriesOf(const QString &folder, const QString &prefix = {})
{
    std::vector<ZipEntry> out;
    QDirIterator it(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    QStringList names;
    while (it.hasNext()) names.append(QDir(folder).relativeFilePath(it.next()));
    names.sort();
    for (const QString &n : names) {
        QFile f(folder + QLatin1Char('/') + n);
        f.open(QIODevice::ReadOnly);
        out.push_back({prefix.isEmpty() ? n : prefix + QLatin1Char('/') + n, f.readAll(), QString()});
    }
    return out;
}

// A catalog entry describing the package file at `path`.
inline SceneCatalog::Entry entryFor(const QString &path, const QString &id, const QString &title)
{
    QFile f(path);
    f.open(QIODevice::ReadOnly);
    QCryptographicHash h(QCryptographicHash::Sha256);
    h.addData(&f);
    SceneCatalog::Entry e;
    e.id = id;
    e.title = title;
    e.file = QFileInfo(path).fileName();
    e.size = QFileInfo(path).size();
    e.sha256 = QString::fromLatin1(h.result().toHex());
    return e;
}

// The catalog "manifest" in `scenesDir`, a second after the last: nginx's ETag is its second and size.
inline void writeCatalog(const QString &scenesDir, const QList<SceneCatalog::Entry> &entries)
{
    const QString path = scenesDir + QStringLiteral("/manifest");
    QDateTime stamp = QDateTime::currentDateTime();
    if (QFileInfo::exists(path)) stamp = std::max(stamp, QFileInfo(path).lastModified().addSecs(1));
    SceneCatalog c;
    c.version = 1;
    c.scenes = entries;
    put(path, c.serialize());
    QFile f(path);
    f.open(QIODevice::ReadWrite);
    f.setFileTime(stamp, QFileDevice::FileModificationTime);
}

// A zip of `entries` published as `scenesDir/file`; its entry belongs to scene "apt".
inline SceneCatalog::Entry publishZip(const QString &scenesDir, const QString &file,
                                      const std::vector<ZipEntry> &entries, const QString &id)
{
    const QString zip = scenesDir + QLatin1Char('/') + file;
    writeZip(zip, entries);
    SceneCatalog::Entry e = entryFor(zip, id, id);
    e.scene = QStringLiteral("apt");
    return e;
}

// makeSceneFolder() under `workDir` as `scenesDir/file`: id `scenario`, scene "apt", title "Apartment <scenario>".
inline SceneCatalog::Entry publishScene(const QString &scenesDir, const QString &workDir, const QString &file,
                                        const QString &scenario, qint64 plateBytes, quint32 seed = 1)
{
    const QString folder = workDir + QStringLiteral("/src/") + scenario;
    makeSceneFolder(folder, scenario, plateBytes, seed);
    SceneCatalog::Entry e = publishZip(scenesDir, file, entriesOf(folder), scenario);
    e.title = QStringLiteral("Apartment ") + scenario;
    return e;
}

}  // namespace scenepackages
