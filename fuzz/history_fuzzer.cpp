// The record stack's index.json as a crash or an edit may have left it: loaded, its covers looked
// up, a new album recorded and the stack cut to the limit; nothing outside the folder is touched.
#include "FuzzSupport.h"

#include "core/app/Settings.h"
#include "core/music/HistoryStore.h"

#include <QDir>
#include <QFile>
#include <QImage>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzSupport::init();
    const QString root = FuzzSupport::scratch();
    QDir().mkpath(root + QStringLiteral("/history"));
    QFile file(root + QStringLiteral("/history/index.json"));
    if (file.open(QIODevice::WriteOnly)) file.write(reinterpret_cast<const char *>(data), qint64(size));
    file.close();
    // A file beside the folder that a hostile index might name.
    QFile bait(root + QStringLiteral("/bait.jpg"));
    if (bait.open(QIODevice::WriteOnly)) bait.write("not a cover");
    bait.close();

    Settings settings(root + QStringLiteral("/settings.json"));
    settings.setStackLimit(3);
    HistoryStore store(settings, root + QStringLiteral("/history"));
    store.previous(QString());
    QImage cover(8, 8, QImage::Format_RGB32);
    cover.fill(Qt::darkRed);
    store.record(cover, QStringLiteral("Fuzz Album"));
    store.trim();
    store.flush();
    if (store.entries().size() > 3 || !QFile::exists(root + QStringLiteral("/bait.jpg"))) std::abort();
    return 0;
}
