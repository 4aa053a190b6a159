#include "core/delivery/PackageDownload.h"

#include "core/app/AppIdentity.h"
#include "core/app/Log.h"
#include "core/app/StateFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QStorageInfo>
#include <QUrl>

PackageDownload::PackageDownload(SceneCatalog::Entry entry, QString downloadsDir, QString baseURL, QObject *parent)
    : QObject(parent)
    , entry(std::move(entry))
    , downloads(std::move(downloadsDir))
    , base(std::move(baseURL))
{
    if (!base.endsWith(QLatin1Char('/'))) base += QLatin1Char('/');
    freeSpace = [](const QString &path) { return QStorageInfo(path).bytesAvailable(); };
}

QString PackageDownload::partialPath(const QString &dir, const SceneCatalog::Entry &e)
{
    return dir + QLatin1Char('/') + e.file + QStringLiteral(".part");
}

QString PackageDownload::recordPath(const QString &dir, const SceneCatalog::Entry &e)
{
    return dir + QLatin1Char('/') + e.file + QStringLiteral(".part.json");
}

QString PackageDownload::partialPath() const { return partialPath(downloads, entry); }
QString PackageDownload::recordPath() const { return recordPath(downloads, entry); }

void PackageDownload::discard(const QString &dir, const SceneCatalog::Entry &e)
{
    QFile::remove(partialPath(dir, e));
    QFile::remove(recordPath(dir, e));
}

QString PackageDownload::formatBytes(qint64 bytes)
{
    // Rounded up, so that freeing the amount shown is always enough: whole megabytes below a
    // gigabyte, tenths of the unit from there on.
    qint64 unit = 1000LL * 1000;
    while (bytes >= unit * 1000 && unit < 1000LL * 1000 * 1000 * 1000 * 1000) unit *= 1000;
    const qint64 step = unit == 1000LL * 1000 ? unit : unit / 10;
    const qint64 rounded = std::max<qint64>(1, (bytes + step - 1) / step) * step;
    return QLocale().formattedDataSize(rounded, rounded < 1000LL * 1000 * 1000 ? 0 : 1, QLocale::DataSizeSIFormat);
}

void PackageDownload::start()
{
    QDir().mkpath(downloads);
    attempt();
}

void PackageDownload::cancel()
{
    if (transfer) transfer->cancel();
}

std::optional<QString> PackageDownload::recordedEtag() const
{
    const QJsonObject o = StateFile::readJson(recordPath()).value_or(QJsonDocument()).object();
    const QJsonValue tag = o.value(QStringLiteral("etag"));
    return tag.isString() ? std::optional<QString>(tag.toString()) : std::nullopt;
}

void PackageDownload::writeRecord(const std::optional<QString> &etag)
{
    QJsonObject o;
    o.insert(QStringLiteral("sha256"), entry.sha256);
    if (etag) o.insert(QStringLiteral("etag"), *etag);
    StateFile::write(recordPath(), QJsonDocument(o).toJson(QJsonDocument::Compact));
}

void PackageDownload::attempt()
{
    // A partial file is only ever continued for the same package.
    bool sameRecord = false;
    if (const auto record = StateFile::readJson(recordPath()))
        sameRecord = record->object().value(QStringLiteral("sha256")).toString() == entry.sha256;
    if (!sameRecord) discard(downloads, entry);
    qint64 have = QFileInfo(partialPath()).size();
    if (have > entry.size) {
        discard(downloads, entry);
        have = 0;
    }

    const qint64 needed = (entry.size - have) + extraSpaceNeeded;
    const qint64 available = freeSpace ? freeSpace(downloads) : -1;
    if (available >= 0 && available < needed) {
        Outcome out;
        out.message = QStringLiteral("espaço em disco insuficiente: faltam ") +
                      QLocale::c().formattedDataSize(needed - available, 1, QLocale::DataSizeSIFormat);
        out.userText = QStringLiteral("Not enough disk space for the room. Free up ") + formatBytes(needed - available);
        finish(out);
        return;
    }

    if (have == entry.size) {
        // Complete from an earlier attempt that stopped before verifying: no request needed.
        if (onProgress) onProgress(have, entry.size);
        Outcome out;
        out.ok = true;
        out.file = partialPath();
        finish(out);
        return;
    }

    QNetworkRequest request(QUrl(base + QStringLiteral("v1/scenes/") + entry.file));
    request.setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("Turnelo/") + AppIdentity::version());
    if (have > 0) {
        request.setRawHeader("Range", "bytes=" + QByteArray::number(have) + '-');
        if (const auto tag = recordedEtag()) request.setRawHeader("If-Range", tag->toLatin1());
    }

    auto *download = new FileDownload(partialPath(), entry.size, this);
    download->limits = limits;
    transfer = download;
    download->onProgress = [this](qint64 received) {
        if (onProgress) onProgress(received, entry.size);
    };
    // Recorded as soon as the body starts, so that a dropped connection can be resumed.
    download->onResponse = [this](const FileDownload::Result &r) { writeRecord(r.etag); };
    download->onFinished = [this, download](const FileDownload::Outcome &outcome) {
        download->deleteLater();
        transferred(outcome);
    };
    download->start(request, manager);
}

void PackageDownload::transferred(const FileDownload::Outcome &outcome)
{
    Outcome out;
    if (outcome.failure) {
        if (outcome.failure->tooLong) discard(downloads, entry);
        out.message = QStringLiteral("falha de rede ao baixar %1: %2").arg(entry.file, outcome.failure->message);
        finish(out);
        return;
    }
    const FileDownload::Result &r = *outcome.result;
    out.status = r.status;
    out.retryAfter = r.retryAfter;
    if (r.status == 200 || r.status == 206) writeRecord(r.etag);
    if (r.status == 412 || r.status == 416) {
        Log::write(QStringLiteral("Cenas: arquivo mudou no servidor (%1), recomeçando").arg(r.status));
        discard(downloads, entry);
        if (restarted) {
            out.message =
                QStringLiteral("o servidor recusou o download de %1 de novo (%2)").arg(entry.file).arg(r.status);
            out.userText = QString::fromUtf8(kChangedOnServerText);
            finish(out);
            return;
        }
        restarted = true;
        if (onRestart) onRestart();
        attempt();
        return;
    }
    if (r.status == 200 || r.status == 206) {
        const qint64 size = QFileInfo(partialPath()).size();
        if (size != entry.size) {
            out.message = QStringLiteral("download interrompido em %1 de %2 bytes").arg(size).arg(entry.size);
            finish(out);
            return;
        }
        out.ok = true;
        out.file = partialPath();
        finish(out);
        return;
    }
    out.body = r.errorBody;
    out.message = QStringLiteral("HTTP %1 ao baixar %2").arg(r.status).arg(entry.file);
    finish(out);
}

void PackageDownload::finish(Outcome outcome)
{
    if (finished) return;
    finished = true;
    const auto callback = onFinished;
    if (callback) callback(outcome);
}
