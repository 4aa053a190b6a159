#include "core/app/StateFile.h"

#include "core/app/Log.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonParseError>
#include <QSaveFile>

namespace StateFile {

bool write(const QString &path, const QByteArray &bytes, QString *error)
{
    // QSaveFile writes to a temporary file, syncs it and renames it over the target on commit.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit()) {
        if (error) *error = file.errorString();
        file.cancelWriting();
        return false;
    }
    return true;
}

std::optional<QJsonDocument> salvage(const QByteArray &bytes)
{
    const QByteArray text = bytes.trimmed();
    if (text.isEmpty() || (text.front() != '{' && text.front() != '[')) return std::nullopt;
    const char close = text.front() == '{' ? '}' : ']';
    // Cut after each top-level comma, from the last one back, and close the container; commas in
    // strings or nested values simply give a text that does not parse, and the next cut is tried.
    for (qsizetype cut = text.lastIndexOf(','); cut > 0; cut = text.lastIndexOf(',', cut - 1)) {
        QJsonParseError error;
        const QJsonDocument doc = QJsonDocument::fromJson(text.left(cut) + close, &error);
        if (error.error == QJsonParseError::NoError) return doc;
    }
    return std::nullopt;
}

void reportDamaged(const QString &path, const QString &reason, bool recovered)
{
    const QString copy = path + QStringLiteral(".bad");
    QFile::remove(copy);
    QFile::copy(path, copy);
    Log::write(QStringLiteral("Estado: ") + QFileInfo(path).fileName() + QStringLiteral(" danificado (") + reason +
               (recovered ? QStringLiteral("); lido até o último item completo") : QStringLiteral("); ignorado")) +
               QStringLiteral(", cópia em ") + QFileInfo(copy).fileName());
}

std::optional<QJsonDocument> readJson(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return std::nullopt;
    const QByteArray bytes = file.readAll();
    if (bytes.trimmed().isEmpty()) return std::nullopt;
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(bytes, &error);
    if (error.error == QJsonParseError::NoError) return doc;
    const auto rescued = salvage(bytes);
    reportDamaged(path, QStringLiteral("JSON ilegível no byte %1").arg(error.offset), rescued.has_value());
    return rescued;
}

}  // namespace StateFile
