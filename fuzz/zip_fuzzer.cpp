// A scene package: unpacked into a scratch folder, which must then hold nothing outside it and
// no more than the allowed bytes.
#include "FuzzSupport.h"

#include "core/delivery/SceneUnpacker.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <cstdlib>
#include <set>
#include <sys/stat.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzSupport::init();
    const QString archive = FuzzSupport::writeScratch(QStringLiteral("package.zip"), data, size);
    const QString root = QFileInfo(archive).absolutePath();
    const QString folder = root + QStringLiteral("/into");
    QDir().mkpath(folder);
    constexpr qint64 limit = 1 << 20;
    bool accepted = true;
    try {
        SceneUnpacker::unpack(archive, folder, limit);
    } catch (const DeliveryError &) {
        accepted = false;  // what it left in the folder is dropped by the caller
    }
    // Whatever was written, refused or not, lies inside the folder; in an accepted package every
    // link leads inside it.
    const QString canonical = QFileInfo(folder).canonicalFilePath() + QLatin1Char('/');
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    qint64 bytes = 0;
    std::set<std::pair<dev_t, ino_t>> files;
    while (it.hasNext()) {
        const QFileInfo info(it.next());
        if (info.absoluteFilePath() == archive || info.absoluteFilePath() == folder) continue;
        if (!info.absoluteFilePath().startsWith(folder + QLatin1Char('/'))) std::abort();
        if (info.isSymLink()) {
            if (accepted && !(info.canonicalFilePath() + QLatin1Char('/')).startsWith(canonical)) std::abort();
            continue;
        }
        // Hard links share their bytes: each file counts once.
        struct stat st {};
        if (info.isFile() && ::lstat(QFile::encodeName(info.absoluteFilePath()).constData(), &st) == 0 &&
            files.insert({st.st_dev, st.st_ino}).second)
            bytes += st.st_size;
    }
    if (bytes > limit) std::abort();
    return 0;
}
