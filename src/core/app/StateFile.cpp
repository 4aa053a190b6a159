#include "core/app/StateFile.h"

#include "core/app/Log.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonParseError>
#include <QSaveFile>
#include <QTemporaryFile>
#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace StateFile {

namespace {

// QSaveFile follows a link and renames over its target; here the link itself is what is replaced.
bool replaceLink(const QString &path, const QByteArray &bytes, QString *error)
{
    QTemporaryFile file(path + QStringLiteral(".XXXXXX"));
    if (file.open() && file.write(bytes) == bytes.size() && file.flush() && ::fsync(file.handle()) == 0 &&
        std::rename(QFile::encodeName(file.fileName()).constData(), QFile::encodeName(path).constData()) == 0) {
        file.setAutoRemove(false);
        return true;
    }
    if (error) *error = file.error() != QFileDevice::NoError ? file.errorString() : qt_error_string(errno);
    return false;
}

}  // namespace

bool write(const QString &path, const QByteArray &bytes, QString *error)
{
    if (QFileInfo(path).isSymLink()) return replaceLink(path, bytes, error);
    // QSaveFile writes to a temporary file, syncs it and renames it over the target on commit.
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit()) {
        if (error) *error = file.errorString();
        file.cancelWriting();
        return false;
    }
    return true;
}

std::optional<QJsonDocument> salvage(const QByteArray &bytes, int *parses)
{
    const QByteArray text = bytes.trimmed();
    if (parses) *parses = 0;
    if (text.isEmpty() || (text.front() != '{' && text.front() != '[')) return std::nullopt;
    const char close = text.front() == '{' ? '}' : ']';
    // Only a comma between the container's own members can end a prefix that parses once closed:
    // one in a string or a nested value leaves something open. Past the damage the scan may
    // misread strings, but a cut there does not parse and the search treats it so.
    QList<qsizetype> cuts;
    int depth = 0;
    bool inString = false;
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            ++depth;
        } else if (c == '}' || c == ']') {
            --depth;
        } else if (c == ',' && depth == 1) {
            cuts.append(i);
        }
    }
    // A cut that parses makes every earlier one parse too: the last good one is found by halves.
    std::optional<QJsonDocument> best;
    qsizetype good = 0, bad = cuts.size();  // cuts before `good` parse, from `bad` on they do not
    while (good < bad) {
        const qsizetype mid = (good + bad) / 2;
        QJsonParseError error;
        QJsonDocument doc = QJsonDocument::fromJson(text.left(cuts[mid]) + close, &error);
        if (parses) ++*parses;
        if (error.error == QJsonParseError::NoError) {
            best = std::move(doc);
            good = mid + 1;
        } else {
            bad = mid;
        }
    }
    return best;
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
