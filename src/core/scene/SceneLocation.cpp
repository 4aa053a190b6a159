#include "core/scene/SceneLocation.h"

#include "core/app/AppIdentity.h"
#include "core/app/Log.h"

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

QStringList candidates()
{
    QStringList list;
    if (const auto dev = development()) list.append(*dev);
    list.append(installedRoot());
    return list;
}

std::optional<Resolved> resolve()
{
    for (const QString &root : candidates()) {
        QFile file(root + QStringLiteral("/manifest.json"));
        if (!file.open(QIODevice::ReadOnly)) continue;
        try {
            return Resolved{root, PlateManifest::decode(file.readAll())};
        } catch (const PlateManifest::DecodeError &error) {
            Log::write(QStringLiteral("Cena: manifest inválido em ") + root + QStringLiteral(": ") +
                       QString::fromUtf8(error.what()));
        }
    }
    return std::nullopt;
}

}  // namespace SceneLocation
