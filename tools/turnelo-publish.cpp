// Turns scene folders into the content service's files: one zip package per base scene and per
// extra framing, and the catalog "v1/scenes/manifest" with their sizes and SHA-256 digests.
// The output folder can be served as is by any static web server (ETag and Range support are
// all the client needs).
//
//   turnelo-publish --out DIR --base SCENE_DIR [--framing NAME=FOLDER]... [--id ID]
//                   [--title TITLE] [--scene NAME] [--min-app-version V] [--store]
//
// The base package holds the scene folder's contents (manifest.json at its top); a framing
// package holds one folder named after the framing. Package names carry the start of their
// digest, so a changed package is a new file and never resumes into an old partial download.
#include "core/app/CommandLine.h"
#include "core/delivery/SceneCatalog.h"
#include "core/scene/PlateManifest.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QTextStream>
#include <memory>

#include <archive.h>
#include <archive_entry.h>

namespace {

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
    Failure(const QString &m)
        : std::runtime_error(m.toStdString())
    {
    }
};

struct Packed {
    QString path;
    qint64 unpacked = 0;
};

// Zips every regular file under `folder` (sorted, so the same input gives the same listing),
// each named `prefix` + its relative path; streams file contents in 1 MiB blocks.
Packed writePackage(const QString &folder, const QString &prefix, const QString &zipPath, bool store)
{
    QStringList names;
    QDirIterator it(folder, QDir::Files | QDir::Hidden | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (it.hasNext()) names.append(QDir(folder).relativeFilePath(it.next()));
    names.sort();
    if (names.isEmpty()) throw Failure(QStringLiteral("nothing to package in %1").arg(folder));

    const std::unique_ptr<archive, int (*)(archive *)> owned(archive_write_new(), archive_write_free);
    archive *a = owned.get();
    archive_write_set_format_zip(a);
    if (store) archive_write_set_options(a, "zip:compression=store");
    if (archive_write_open_filename(a, QFile::encodeName(zipPath).constData()) != ARCHIVE_OK)
        throw Failure(QStringLiteral("cannot write %1: %2").arg(zipPath, QString::fromUtf8(archive_error_string(a))));
    Packed packed{zipPath, 0};
    QByteArray block(1 << 20, Qt::Uninitialized);
    for (const QString &name : names) {
        QFile file(folder + QLatin1Char('/') + name);
        if (!file.open(QIODevice::ReadOnly)) throw Failure(QStringLiteral("cannot read %1").arg(file.fileName()));
        const std::unique_ptr<archive_entry, void (*)(archive_entry *)> owned(archive_entry_new(), archive_entry_free);
        archive_entry *e = owned.get();
        archive_entry_copy_pathname(e, (prefix + name).toUtf8().constData());
        archive_entry_set_filetype(e, AE_IFREG);
        archive_entry_set_perm(e, 0644);
        archive_entry_set_size(e, file.size());
        archive_entry_set_mtime(e, QFileInfo(file).lastModified().toSecsSinceEpoch(), 0);
        if (archive_write_header(a, e) != ARCHIVE_OK)
            throw Failure(
                QStringLiteral("zip header for %1: %2").arg(name, QString::fromUtf8(archive_error_string(a))));
        qint64 n;
        while ((n = file.read(block.data(), block.size())) > 0) {
            if (archive_write_data(a, block.constData(), size_t(n)) != n)
                throw Failure(
                    QStringLiteral("zip data for %1: %2").arg(name, QString::fromUtf8(archive_error_string(a))));
            packed.unpacked += n;
        }
    }
    if (archive_write_close(a) != ARCHIVE_OK)
        throw Failure(QStringLiteral("closing %1: %2").arg(zipPath, QString::fromUtf8(archive_error_string(a))));
    return packed;
}

QString sha256Of(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) throw Failure(QStringLiteral("cannot read %1").arg(path));
    QCryptographicHash h(QCryptographicHash::Sha256);
    h.addData(&f);
    return QString::fromLatin1(h.result().toHex());
}

// Packs, hashes and renames to "<stem>-<digest start>.zip"; returns the catalog entry. A package
// that did not exist before is added to `created`, so a failed run can take it back.
SceneCatalog::Entry publish(const QString &folder, const QString &prefix, const QString &stem, const QString &outDir,
                            bool store, QStringList &created)
{
    const QString temp = outDir + QLatin1Char('/') + stem + QStringLiteral(".zip.tmp");
    try {
        const Packed packed = writePackage(folder, prefix, temp, store);
        SceneCatalog::Entry e;
        e.sha256 = sha256Of(temp);
        e.size = QFileInfo(temp).size();
        e.unpackedSize = packed.unpacked;
        e.file = stem + QLatin1Char('-') + e.sha256.left(12) + QStringLiteral(".zip");
        if (!SceneCatalog::isSafeName(e.file)) throw Failure(QStringLiteral("unsafe package name %1").arg(e.file));
        const QString target = outDir + QLatin1Char('/') + e.file;
        const bool existed = QFileInfo::exists(target);
        QFile::remove(target);
        if (!QFile::rename(temp, target)) throw Failure(QStringLiteral("cannot rename %1 to %2").arg(temp, e.file));
        if (!existed) created.append(target);
        return e;
    } catch (...) {
        QFile::remove(temp);
        throw;
    }
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    CommandLine line(QStringLiteral("turnelo-publish"),
                     QStringLiteral("Packages scene folders and writes the scene catalog."));
    QCommandLineParser &parser = line.parser;
    const QCommandLineOption out(QStringLiteral("out"), QStringLiteral("Output folder (document root)."),
                                 QStringLiteral("dir"));
    const QCommandLineOption base(QStringLiteral("base"), QStringLiteral("Base scene folder (holds manifest.json)."),
                                  QStringLiteral("dir"));
    const QCommandLineOption framing(QStringLiteral("framing"),
                                     QStringLiteral("Extra framing NAME=FOLDER (repeatable)."),
                                     QStringLiteral("name=dir"));
    const QCommandLineOption id(QStringLiteral("id"), QStringLiteral("Package identifier (default: scene name)."),
                                QStringLiteral("id"));
    const QCommandLineOption title(QStringLiteral("title"), QStringLiteral("Scene title shown while installing."),
                                   QStringLiteral("title"));
    const QCommandLineOption scene(QStringLiteral("scene"), QStringLiteral("Scene name tying framings to the base."),
                                   QStringLiteral("name"), QStringLiteral("room"));
    const QCommandLineOption minVersion(QStringLiteral("min-app-version"),
                                        QStringLiteral("Lowest app version for these packages."),
                                        QStringLiteral("version"));
    const QCommandLineOption store(QStringLiteral("store"),
                                   QStringLiteral("Store without compression (plates are compressed already)."));
    parser.addOptions({out, base, framing, id, title, scene, minVersion, store});
    if (const auto status = line.parse(app.arguments())) return *status;
    QTextStream err(stderr), info(stdout);
    QStringList created;
    if (!parser.isSet(out) || !parser.isSet(base)) {
        err << "turnelo-publish: --out and --base are required\n";
        return 2;
    }
    try {
        // Absolute from here on: the package walk names files relative to the folder it walks.
        const QString baseDir = QDir(parser.value(base)).absolutePath();
        QFile manifest(baseDir + QStringLiteral("/manifest.json"));
        if (!manifest.open(QIODevice::ReadOnly)) throw Failure(QStringLiteral("%1 has no manifest.json").arg(baseDir));
        try {
            PlateManifest::decode(manifest.readAll());
        } catch (const std::exception &e) {
            throw Failure(QStringLiteral("invalid manifest.json: %1").arg(QString::fromUtf8(e.what())));
        }
        const QString sceneName = parser.value(scene);
        const QString packageId = parser.value(id).isEmpty() ? sceneName : parser.value(id);
        if (!SceneCatalog::isSafeName(packageId) || !SceneCatalog::isSafeName(sceneName))
            throw Failure(QStringLiteral("ids and scene names must match [A-Za-z0-9][A-Za-z0-9._-]*"));
        const QString scenesDir = QDir(parser.value(out)).absolutePath() + QStringLiteral("/v1/scenes");
        QDir().mkpath(scenesDir);
        const bool stored = parser.isSet(store);

        SceneCatalog catalog;
        catalog.version = 1;
        SceneCatalog::Entry b = publish(baseDir, {}, packageId, scenesDir, stored, created);
        b.id = packageId;
        b.title = parser.value(title).isEmpty() ? sceneName : parser.value(title);
        b.scene = sceneName;
        b.base = true;
        if (parser.isSet(minVersion)) b.minAppVersion = parser.value(minVersion);
        catalog.scenes.append(b);
        for (const QString &entry : parser.values(framing)) {
            const QString name = entry.section(QLatin1Char('='), 0, 0), given = entry.section(QLatin1Char('='), 1);
            if (!SceneCatalog::isSafeName(name) || given.isEmpty())
                throw Failure(QStringLiteral("bad --framing %1 (want NAME=FOLDER)").arg(entry));
            const QString folder = QDir(given).absolutePath();
            SceneCatalog::Entry f = publish(folder, name + QLatin1Char('/'), packageId + QLatin1Char('-') + name,
                                            scenesDir, stored, created);
            f.id = packageId + QLatin1Char('-') + name;
            f.title = b.title;
            f.scene = sceneName;
            f.framing = name;
            f.base = false;
            f.minAppVersion = b.minAppVersion;
            catalog.scenes.append(f);
        }
        QSaveFile file(scenesDir + QStringLiteral("/manifest"));
        if (!file.open(QIODevice::WriteOnly)) throw Failure(QStringLiteral("cannot write the catalog"));
        file.write(catalog.serialize());
        if (!file.commit()) throw Failure(QStringLiteral("cannot write the catalog"));
        for (const SceneCatalog::Entry &e : catalog.scenes) info << e.file << ' ' << e.size << ' ' << e.sha256 << '\n';
    } catch (const std::exception &e) {
        for (const QString &path : created) QFile::remove(path);
        err << "turnelo-publish: " << e.what() << '\n';
        return 1;
    }
    return 0;
}
