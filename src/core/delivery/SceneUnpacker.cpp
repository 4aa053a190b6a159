#include "core/delivery/SceneUnpacker.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QStringList>

#include <archive.h>
#include <archive_entry.h>
#include <memory>

namespace SceneUnpacker {
namespace {

struct ReadCloser {
    void operator()(archive *a) const { archive_read_free(a); }
};
struct WriteCloser {
    void operator()(archive *a) const { archive_write_free(a); }
};

QString entryName(archive_entry *e)
{
    if (const char *utf8 = archive_entry_pathname_utf8(e)) return QString::fromUtf8(utf8);
    if (const char *raw = archive_entry_pathname(e)) return QFile::decodeName(raw);
    return {};
}

// Lexically resolves `path` (relative, "/"-separated); false when it climbs above the root.
bool staysInside(const QString &path)
{
    QStringList parts;
    for (const QString &p : path.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        if (p == QLatin1String(".")) continue;
        if (p == QLatin1String("..")) {
            if (parts.isEmpty()) return false;
            parts.removeLast();
        } else {
            parts.append(p);
        }
    }
    return true;
}

bool hasDotDot(const QString &name) { return name.split(QLatin1Char('/')).contains(QStringLiteral("..")); }

void checkName(const QString &name, const char *what)
{
    if (name.isEmpty()) throw DeliveryError(DeliveryError::Kind::package, std::string("pacote com ") + what + " vazio");
    if (name.startsWith(QLatin1Char('/')))
        throw DeliveryError(DeliveryError::Kind::package,
                            QStringLiteral("pacote com caminho absoluto: %1").arg(name).toStdString());
    if (hasDotDot(name))
        throw DeliveryError(DeliveryError::Kind::package,
                            QStringLiteral("pacote com \"..\" no caminho: %1").arg(name).toStdString());
}

[[noreturn]] void archiveFailure(archive *a, const QString &context)
{
    const char *text = archive_error_string(a);
    throw DeliveryError(DeliveryError::Kind::package,
                        QStringLiteral("descompactação falhou (%1): %2")
                            .arg(context, text ? QString::fromUtf8(text) : QStringLiteral("erro desconhecido"))
                            .toStdString());
}

}  // namespace

qint64 limitFor(const SceneCatalog::Entry &entry)
{
    if (!entry.unpackedSize) return std::min(entry.size * 16 + (64LL << 20), kMaxBytes);
    const qint64 claim = *entry.unpackedSize;
    const qint64 allowed = std::min(entry.size * kMaxRatio, kMaxBytes);
    if (claim < 1 || claim > allowed)
        throw DeliveryError(DeliveryError::Kind::package,
                            QStringLiteral("pacote %1 declara %2 bytes descompactados para %3 bytes; o limite é %4")
                                .arg(entry.file)
                                .arg(claim)
                                .arg(entry.size)
                                .arg(allowed)
                                .toStdString());
    return claim;
}

qint64 unpack(const QString &archivePath, const QString &folder, qint64 maxBytes, int maxEntries)
{
    const QString root = QFileInfo(folder).canonicalFilePath();
    if (root.isEmpty())
        throw DeliveryError(DeliveryError::Kind::package,
                            QStringLiteral("pasta de destino inexistente: %1").arg(folder).toStdString());

    std::unique_ptr<archive, ReadCloser> in(archive_read_new());
    archive_read_support_format_zip(in.get());
    if (archive_read_open_filename(in.get(), QFile::encodeName(archivePath).constData(), 1 << 20) != ARCHIVE_OK)
        archiveFailure(in.get(), archivePath);

    std::unique_ptr<archive, WriteCloser> out(archive_write_disk_new());
    archive_write_disk_set_options(out.get(), ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_SECURE_SYMLINKS);

    qint64 written = 0;
    QStringList links;
    QSet<QString> names;
    int entries = 0;
    for (;;) {
        archive_entry *e = nullptr;
        const int r = archive_read_next_header(in.get(), &e);
        if (r == ARCHIVE_EOF) break;
        if (r < ARCHIVE_WARN) archiveFailure(in.get(), archivePath);
        if (++entries > maxEntries)
            throw DeliveryError(DeliveryError::Kind::package,
                                QStringLiteral("pacote com mais de %1 entradas").arg(maxEntries).toStdString());

        QString name = entryName(e);
        checkName(name, "nome");
        while (name.startsWith(QLatin1String("./"))) name = name.mid(2);
        if (name.isEmpty() || name == QLatin1String(".")) continue;
        // "a//b/" and "a/b" are one path on disk: the later entry would silently replace the earlier.
        const QString path = QDir::cleanPath(name);
        if (names.contains(path))
            throw DeliveryError(DeliveryError::Kind::package,
                                QStringLiteral("pacote com entrada repetida: %1").arg(path).toStdString());
        names.insert(path);

        const mode_t type = archive_entry_filetype(e);
        const char *hardlink = archive_entry_hardlink(e);
        if (hardlink) {
            const QString target = QFile::decodeName(hardlink);
            checkName(target, "link");
            archive_entry_copy_hardlink(e, QFile::encodeName(root + QLatin1Char('/') + target).constData());
        } else if (type == AE_IFLNK) {
            const QString target = QFile::decodeName(archive_entry_symlink(e));
            const QString dir =
                name.contains(QLatin1Char('/')) ? name.left(name.lastIndexOf(QLatin1Char('/')) + 1) : QString();
            if (target.isEmpty() || target.startsWith(QLatin1Char('/')) || !staysInside(dir + target))
                throw DeliveryError(
                    DeliveryError::Kind::package,
                    QStringLiteral("pacote com link para fora da pasta: %1 -> %2").arg(name, target).toStdString());
            links.append(name);
        } else if (type == AE_IFDIR) {
            archive_entry_set_perm(e, 0755);
        } else if (type == AE_IFREG) {
            archive_entry_set_perm(e, 0644);
            // The size a header declares is not trusted: the writer would stretch the file to it
            // (8 bytes of data, 300 MB on disk as a sparse file). The file gets what its data holds.
            archive_entry_unset_size(e);
        } else {
            throw DeliveryError(DeliveryError::Kind::package,
                                QStringLiteral("pacote com arquivo especial: %1").arg(name).toStdString());
        }
        archive_entry_copy_pathname(e, QFile::encodeName(root + QLatin1Char('/') + name).constData());

        if (archive_write_header(out.get(), e) < ARCHIVE_WARN) archiveFailure(out.get(), name);
        if (!hardlink && type == AE_IFREG) {
            for (;;) {
                const void *buffer = nullptr;
                size_t size = 0;
                la_int64_t offset = 0;
                const int d = archive_read_data_block(in.get(), &buffer, &size, &offset);
                if (d == ARCHIVE_EOF) break;
                if (d < ARCHIVE_WARN) archiveFailure(in.get(), name);
                written += qint64(size);
                if (written > maxBytes)
                    throw DeliveryError(DeliveryError::Kind::package,
                                        QStringLiteral("pacote maior que o permitido: mais de %1 bytes descompactados")
                                            .arg(maxBytes)
                                            .toStdString());
                if (archive_write_data_block(out.get(), buffer, size, offset) < ARCHIVE_WARN)
                    archiveFailure(out.get(), name);
            }
        }
        if (archive_write_finish_entry(out.get()) < ARCHIVE_WARN) archiveFailure(out.get(), name);
    }
    if (archive_write_close(out.get()) < ARCHIVE_WARN) archiveFailure(out.get(), folder);
    // Lexical checks cannot see links through links ("s -> .", "t -> s/.."): judge every link by
    // where it really leads now that the whole tree exists. A dangling link is refused too.
    for (const QString &name : links) {
        const QString real = QFileInfo(root + QLatin1Char('/') + name).canonicalFilePath();
        if (real.isEmpty() || !(real == root || real.startsWith(root + QLatin1Char('/'))))
            throw DeliveryError(DeliveryError::Kind::package,
                                QStringLiteral("pacote com link para fora da pasta: %1").arg(name).toStdString());
    }
    return written;
}

}  // namespace SceneUnpacker
