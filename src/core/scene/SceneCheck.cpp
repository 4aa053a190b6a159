#include "core/scene/SceneCheck.h"

#include "core/scene/SceneFiles.h"

#include <QDir>
#include <QFile>

namespace SceneCheck {

QStringList Report::wholeFramings() const
{
    QStringList out;
    for (const auto &[name, files] : missing)
        if (files.isEmpty()) out.append(name);
    return out;
}

PlateManifest readManifest(const QString &dir)
{
    QFile file(QDir(dir).absolutePath() + QStringLiteral("/manifest.json"));
    if (!file.open(QIODevice::ReadOnly))
        throw SceneError(SceneError::Kind::noManifest,
                         QStringLiteral("não achei %1").arg(file.fileName()).toStdString());
    if (file.size() > kMaxManifestBytes)
        throw SceneError(SceneError::Kind::badManifest, QStringLiteral("manifest com %1 bytes, o limite é %2")
                                                            .arg(file.size())
                                                            .arg(kMaxManifestBytes)
                                                            .toStdString());
    return PlateManifest::decode(file.readAll());
}

Report check(const QString &dir)
{
    Report report{readManifest(dir), {}};
    const QDir root(dir);
    for (const auto &[name, framing] : report.manifest.framings) {
        QStringList &absent = report.missing[name];
        for (const QString &file : SceneFiles::referenced(report.manifest, name))
            if (!QFile::exists(root.filePath(file))) absent.append(file);
    }
    return report;
}

}  // namespace SceneCheck
