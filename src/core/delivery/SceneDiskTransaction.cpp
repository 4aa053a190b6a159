#include "core/delivery/SceneDiskTransaction.h"

#include "core/app/Log.h"
#include "core/app/StateFile.h"
#include "core/delivery/SceneUnpacker.h"
#include "core/scene/SceneCheck.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

namespace SceneDisk {

namespace {

QString sha256Of(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        throw DeliveryError(DeliveryError::Kind::disk,
                            QStringLiteral("não foi possível ler %1: %2").arg(path, f.errorString()));
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!hash.addData(&f)) throw DeliveryError(DeliveryError::Kind::disk, QStringLiteral("erro ao ler %1").arg(path));
    return QString::fromLatin1(hash.result().toHex());
}

// The framing's folder inside the staging folder: directly there, or inside its one real entry.
QString findFramingFolder(const QString &incoming, const QString &name)
{
    const QString direct = incoming + QLatin1Char('/') + name;
    if (QFileInfo(direct).isDir()) return direct;
    QStringList kept;
    for (const QString &entry :
         QDir(incoming).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System)) {
        if (entry.startsWith(QLatin1Char('.')) || entry == QLatin1String("__MACOSX")) continue;
        kept.append(entry);
    }
    if (kept.size() == 1) {
        const QString nested = incoming + QLatin1Char('/') + kept.first() + QLatin1Char('/') + name;
        if (QFileInfo(nested).isDir()) return nested;
    }
    throw DeliveryError(DeliveryError::Kind::package, QStringLiteral("pacote sem a pasta ") + name);
}

// The room a package brings must be one the application can show, or it would replace a good one
// with nothing: a manifest that decodes and at least one framing with every file it names.
void checkScene(const QString &dir)
{
    try {
        const SceneCheck::Report report = SceneCheck::check(dir);
        if (!report.wholeFramings().isEmpty()) return;
        QStringList absent;
        for (const auto &[name, files] : report.missing) absent += files;
        throw DeliveryError(DeliveryError::Kind::package,
                            QStringLiteral("pacote sem enquadramento completo; faltam: ") +
                                absent.mid(0, 5).join(QStringLiteral(", ")) +
                                (absent.size() > 5 ? QStringLiteral("…") : QString()));
    } catch (const SceneError &e) {
        throw DeliveryError(DeliveryError::Kind::package,
                            e.kind == SceneError::Kind::noManifest
                                ? QStringLiteral("pacote sem manifest.json")
                                : QStringLiteral("pacote com manifest.json inválido: ") + e.description());
    }
}

bool holdsScene(const QString &dir) { return QFileInfo(dir + QLatin1Char('/') + kManifest).isFile(); }

}  // namespace

void verifyDigest(const QString &path, const SceneCatalog::Entry &entry)
{
    const QString actual = sha256Of(path);
    if (actual.compare(entry.sha256, Qt::CaseInsensitive) != 0)
        throw DeliveryError(DeliveryError::Kind::disk,
                            QStringLiteral("SHA-256 não confere em %1 (esperado %2, obtido %3)")
                                .arg(entry.file, entry.sha256.toLower(), actual));
}

void removeTree(const QString &path)
{
    QFileInfo info(path);
    if (info.isSymLink() || info.isFile())
        QFile::remove(path);
    else if (info.exists())
        QDir(path).removeRecursively();
}

void renameOrThrow(const QString &from, const QString &to)
{
    if (!QDir().rename(from, to))
        throw DeliveryError(DeliveryError::Kind::disk,
                            QStringLiteral("não foi possível mover %1 para %2").arg(from, to));
}

void writeJson(const QString &path, const QJsonObject &object)
{
    QString error;
    if (!StateFile::write(path, QJsonDocument(object).toJson(QJsonDocument::Indented), &error))
        throw DeliveryError(DeliveryError::Kind::disk,
                            QStringLiteral("não foi possível gravar %1: %2").arg(path, error));
}

// Unpacks a verified base package and swaps it in: "Scenes" is replaced by two renames, so at
// every moment either it or "Scenes.old"/"Scenes.incoming" (complete, with its record) holds a
// whole scene that recover() can put back.
void installBase(const QString &root, const QString &package, const SceneCatalog::Entry &entry)
{
    const QString scenes = root + QLatin1Char('/') + kScenes;
    const QString incoming = root + QLatin1Char('/') + kIncoming;
    const QString old = root + QLatin1Char('/') + kOld;
    removeTree(incoming);
    if (!QDir().mkpath(incoming))
        throw DeliveryError(DeliveryError::Kind::disk, QStringLiteral("não foi possível criar %1").arg(incoming));
    try {
        SceneUnpacker::unpack(package, incoming, SceneUnpacker::limitFor(entry));
        checkScene(incoming);
        writeJson(incoming + QLatin1Char('/') + kInstalledRecord, entry.toJson());
    } catch (...) {
        removeTree(incoming);
        throw;
    }
    removeTree(old);
    const bool hadScene = QFileInfo::exists(scenes);
    if (hadScene) renameOrThrow(scenes, old);
    if (!QDir().rename(incoming, scenes)) {
        if (hadScene) QDir().rename(old, scenes);
        throw DeliveryError(DeliveryError::Kind::disk,
                            QStringLiteral("não foi possível mover %1 para %2").arg(incoming, scenes));
    }
    removeTree(old);
}

void installFraming(const QString &root, const QString &name, const QList<SceneCatalog::Entry> &packages,
                    const QString &baseDigest)
{
    const QString scenes = root + QLatin1Char('/') + kScenes;
    const QString incoming = root + QLatin1Char('/') + kFramingIncoming;
    const QString old = root + QLatin1Char('/') + kFramingOld;
    const QString found = findFramingFolder(incoming, name);
    const QString target = scenes + QLatin1Char('/') + name;
    removeTree(old);
    QDir().mkpath(old);
    // The replaced folder keeps its name inside "Framing.old", so recover() knows where it goes.
    const bool hadFraming = QFileInfo::exists(target);
    if (hadFraming) renameOrThrow(target, old + QLatin1Char('/') + name);
    if (!QDir().rename(found, target)) {
        if (hadFraming) QDir().rename(old + QLatin1Char('/') + name, target);
        throw DeliveryError(DeliveryError::Kind::disk,
                            QStringLiteral("não foi possível mover %1 para %2").arg(found, target));
    }
    const QString recordPath = scenes + QLatin1Char('/') + kFramingsRecord;
    QJsonObject record = StateFile::readJson(recordPath).value_or(QJsonDocument()).object();
    QJsonArray list;
    for (const SceneCatalog::Entry &e : packages)
        list.append(QJsonObject{{QStringLiteral("id"), e.id}, {QStringLiteral("sha256"), e.sha256}});
    record.insert(name, QJsonObject{{QStringLiteral("base_sha256"), baseDigest}, {QStringLiteral("packages"), list}});
    writeJson(recordPath, record);
    removeTree(old);
    removeTree(incoming);
}

void recover(const QString &root)
{
    const QString scenes = root + QLatin1Char('/') + kScenes;
    const QString incoming = root + QLatin1Char('/') + kIncoming;
    const QString old = root + QLatin1Char('/') + kOld;

    if (!holdsScene(scenes)) {
        // "Scenes.incoming" is complete only once its record is written, after unpacking.
        if (holdsScene(incoming) && QFileInfo(incoming + QLatin1Char('/') + kInstalledRecord).isFile()) {
            removeTree(scenes);
            if (QDir().rename(incoming, scenes))
                Log::write(QStringLiteral("Cenas: instalação interrompida concluída a partir de ") + kIncoming);
        } else if (holdsScene(old)) {
            removeTree(scenes);
            if (QDir().rename(old, scenes))
                Log::write(QStringLiteral("Cenas: instalação interrompida, cena anterior restaurada de ") + kOld);
        }
    }
    removeTree(incoming);
    removeTree(old);

    const QString framingOld = root + QLatin1Char('/') + kFramingOld;
    if (QFileInfo(framingOld).isDir() && holdsScene(scenes)) {
        for (const QString &name : QDir(framingOld).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
            const QString target = scenes + QLatin1Char('/') + name;
            if (!QFileInfo::exists(target) && QDir().rename(framingOld + QLatin1Char('/') + name, target))
                Log::write(QStringLiteral("Cenas: enquadramento ") + name + QStringLiteral(" restaurado de ") +
                           kFramingOld);
        }
    }
    removeTree(framingOld);
    removeTree(root + QLatin1Char('/') + kFramingIncoming);
}

}  // namespace SceneDisk
