#include "core/scene/PlatesWatcher.h"

#include "core/app/Log.h"
#include "core/scene/SceneLocation.h"

#include <QFileInfo>
#include <QFileSystemWatcher>

namespace {

std::optional<QDateTime> modificationDate(const QString &path)
{
    const QFileInfo info(path);
    if (!info.exists()) return std::nullopt;
    const QDateTime date = info.lastModified();
    return date.isValid() ? std::optional<QDateTime>(date) : std::nullopt;
}

}  // namespace

PlatesWatcher::PlatesWatcher(std::function<void()> onSettled, int debounceMs, QObject *parent)
    : QObject(parent)
    , onSettled(std::move(onSettled))
{
    debounce.setInterval(debounceMs);
    const auto resolved = SceneLocation::resolve();
    start(resolved ? resolved->root : SceneLocation::installedRoot());
}

PlatesWatcher::PlatesWatcher(const QString &root, std::function<void()> onSettled, int debounceMs, QObject *parent)
    : QObject(parent)
    , onSettled(std::move(onSettled))
{
    debounce.setInterval(debounceMs);
    start(root);
}

PlatesWatcher::~PlatesWatcher() = default;

void PlatesWatcher::start(const QString &root)
{
    manifest = root + QStringLiteral("/manifest.json");
    manifestDate = modificationDate(manifest);
    debounce.setSingleShot(true);
    connect(&debounce, &QTimer::timeout, this, &PlatesWatcher::settle);
    this->root = root;
    sources = new QFileSystemWatcher(this);
    watchRoot();
    watchManifest();
    connect(sources, &QFileSystemWatcher::directoryChanged, this, &PlatesWatcher::changed);
    connect(sources, &QFileSystemWatcher::fileChanged, this, &PlatesWatcher::changed);
}

void PlatesWatcher::watchRoot()
{
    // An installer swaps the whole root by renames, which a watch on the root itself does not
    // see (and which carries that watch away with the old folder); the parent sees both the
    // swap and a first installation into a root that does not exist yet.
    for (const QString &dir : {QFileInfo(root).absolutePath(), root})
        if (QFileInfo(dir).isDir() && !sources->directories().contains(dir)) sources->addPath(dir);
}

void PlatesWatcher::watchManifest()
{
    // A replacement by rename leaves the old watch on the old file: watch the path anew.
    sources->removePath(manifest);
    if (QFileInfo::exists(manifest)) sources->addPath(manifest);
}

void PlatesWatcher::stop()
{
    debounce.stop();
    if (sources) {
        delete sources;
        sources = nullptr;
    }
}

void PlatesWatcher::changed()
{
    debounce.start();  // every event starts the quiet interval anew
}

void PlatesWatcher::settle()
{
    if (!sources) return;
    watchRoot();
    watchManifest();
    const auto now = modificationDate(manifest);
    if (now == manifestDate) return;
    manifestDate = now;
    Log::write(QStringLiteral("Manifest novo: recarregando a cena"));
    if (onSettled) onSettled();
}
