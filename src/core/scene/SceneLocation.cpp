#include "core/scene/SceneLocation.h"

#include "core/app/AppIdentity.h"
#include "core/app/Log.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

namespace SceneLocation {

QString supportDirectory()
{
    static const QString folder = AppIdentity::xdgFolder("XDG_DATA_HOME", QStringLiteral(".local/share")) +
                                  QLatin1Char('/') + AppIdentity::appName();
    return folder;
}

QString installedRoot() { return supportDirectory() + QStringLiteral("/Scenes"); }

std::optional<QString> development()
{
    if (!qEnvironmentVariableIsSet("TURNELO_SCENES_DIR")) return std::nullopt;
    QString path = qEnvironmentVariable("TURNELO_SCENES_DIR");
    if (path == QStringLiteral("~") || path.startsWith(QStringLiteral("~/"))) path = QDir::homePath() + path.mid(1);
    return QDir::cleanPath(QDir(path).absolutePath());
}

bool usesDevelopmentScenes()
{
    const auto dev = development();
    return dev && QFile::exists(*dev + QStringLiteral("/manifest.json"));
}

QStringList bundled()
{
    QStringList list;
    QString dataDirs = qEnvironmentVariable("XDG_DATA_DIRS");
    if (dataDirs.isEmpty()) dataDirs = QStringLiteral("/usr/local/share:/usr/share");
    for (const QString &dir : dataDirs.split(QLatin1Char(':'), Qt::SkipEmptyParts))
        // Relative entries are invalid by the XDG rules: they would depend on the working folder.
        if (QDir::isAbsolutePath(dir)) list.append(QDir::cleanPath(dir + QStringLiteral("/turnelo/scenes/room")));
    if (QCoreApplication::instance()) {
        const QDir binary(QCoreApplication::applicationDirPath());
        if (binary.exists(QStringLiteral("CMakeCache.txt")))
            list.append(QDir::cleanPath(binary.filePath(QStringLiteral("../scenes/room"))));
    }
    list.removeDuplicates();
    return list;
}

std::optional<QString> bundledRoom()
{
    if (development()) return std::nullopt;
    for (const QString &root : bundled())
        if (QFile::exists(root + QStringLiteral("/manifest.json"))) return root;
    return std::nullopt;
}

QList<Candidate> candidates()
{
    QList<Candidate> list;
    if (const auto dev = development()) list.append({*dev, Origin::development});
    list.append({installedRoot(), Origin::installed});
    // A development folder stands in for the room that ships: a mistake in it must show, not be
    // covered by the finished room.
    if (!development())
        for (const QString &root : bundled()) list.append({root, Origin::bundled});
    return list;
}

std::optional<Origin> originOf(const QString &root)
{
    for (const auto &c : candidates())
        if (c.root == root) return c.origin;
    return std::nullopt;
}

QString originWord(Origin origin)
{
    switch (origin) {
    case Origin::development:
        return QStringLiteral("desenvolvimento");
    case Origin::installed:
        return QStringLiteral("instalada");
    case Origin::bundled:
        return QStringLiteral("embutida");
    }
    return {};
}

std::optional<Resolved> resolve()
{
    for (const auto &[root, origin] : candidates()) {
        QFile file(root + QStringLiteral("/manifest.json"));
        if (!file.open(QIODevice::ReadOnly)) continue;
        try {
            return Resolved{root, PlateManifest::decode(file.readAll()), origin};
        } catch (const SceneError &error) {
            Log::write(QStringLiteral("Cena: manifest inválido em ") + root + QStringLiteral(": ") +
                       QString::fromUtf8(error.what()));
        }
    }
    return std::nullopt;
}

}  // namespace SceneLocation
