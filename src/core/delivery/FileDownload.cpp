#include "core/delivery/FileDownload.h"

#include <QNetworkAccessManager>

namespace {

constexpr qint64 kReadBufferBytes = 1 << 20;
constexpr qint64 kChunkBytes = 256 * 1024;

std::optional<QString> header(QNetworkReply *reply, const char *name)
{
    if (!reply->hasRawHeader(name)) return std::nullopt;
    return QString::fromLatin1(reply->rawHeader(name));
}

// "bytes 100-199/1000" → 100; anything unreadable gives none.
std::optional<qint64> contentRangeStart(const QByteArray &value)
{
    if (value.isEmpty()) return std::nullopt;
    const QByteArray range = value.mid(value.lastIndexOf(' ') + 1);
    bool ok = false;
    const qint64 start = range.split('-').value(0).toLongLong(&ok, 10);
    return ok ? std::optional<qint64>(start) : std::nullopt;
}

bool isRedirect(int status)
{
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

}  // namespace

FileDownload::FileDownload(QString file, qint64 expectedTotal, QObject *parent)
    : QObject(parent)
    , path(std::move(file))
    , total(expectedTotal)
{
}

FileDownload::~FileDownload()
{
    if (reply) {
        reply->disconnect(this);
        reply->abort();
        reply->deleteLater();
    }
}

void FileDownload::start(QNetworkRequest request, QNetworkAccessManager *manager)
{
    if (!manager) {
        ownManager = std::make_unique<QNetworkAccessManager>();
        ownManager->setCookieJar(nullptr);
        manager = ownManager.get();
    }
    // Identity encoding also keeps byte ranges addressing the stored file, not a compressed stream.
    TransferGuard::prepare(request);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    request.setAttribute(QNetworkRequest::CacheSaveControlAttribute, false);
    request.setAttribute(QNetworkRequest::CookieLoadControlAttribute, QNetworkRequest::Manual);
    request.setAttribute(QNetworkRequest::CookieSaveControlAttribute, QNetworkRequest::Manual);
    lastReport.start();
    reply = manager->get(request);
    reply->setReadBufferSize(kReadBufferBytes);
    TransferGuard::watch(reply, limits);
    connect(reply, &QNetworkReply::metaDataChanged, this, &FileDownload::responseReceived);
    connect(reply, &QNetworkReply::readyRead, this, &FileDownload::dataReceived);
    connect(reply, &QNetworkReply::finished, this, &FileDownload::completed);
}

void FileDownload::cancel()
{
    if (reply && !done) reply->abort();
}

void FileDownload::responseReceived()
{
    if (responded || !reply) return;
    const QVariant code = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!code.isValid()) return;
    const int status = code.toInt();
    if (isRedirect(status) && reply->hasRawHeader("Location"))
        return;  // followed by the manager; the final response counts
    responded = true;
    result.status = status;
    result.etag = header(reply, "ETag");
    result.retryAfter = header(reply, "Retry-After");

    handle.setFileName(path);
    if (status == 206) {
        if (!handle.open(QIODevice::ReadWrite)) {
            writeFailed = true;
            reply->abort();
            return;
        }
        received = handle.size();
        handle.seek(received);
        const auto start = contentRangeStart(reply->rawHeader("Content-Range"));
        if (start && *start != received) {
            // The server is not continuing where the file ends: splicing would corrupt it.
            handle.resize(0);
            handle.close();
            received = 0;
            result.status = 416;
            rangeMismatch = true;
            reply->abort();
            return;
        }
    } else if (status == 200) {
        if (!handle.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            writeFailed = true;
            reply->abort();
            return;
        }
        received = 0;
    }
    const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
    if (handle.isOpen() && total > 0 && length.isValid() && received + length.toLongLong() > total) {
        tooLong = true;
        reply->abort();
        return;
    }
    if (handle.isOpen() && onResponse) {
        Result now = result;
        now.received = received;
        onResponse(now);
    }
}

void FileDownload::dataReceived()
{
    if (!reply || rangeMismatch || writeFailed || tooLong || errorBodyFull) return;
    if (!responded) responseReceived();
    if (rangeMismatch || writeFailed || tooLong) return;
    while (reply->bytesAvailable() > 0) {
        const QByteArray chunk = reply->read(kChunkBytes);
        if (chunk.isEmpty()) break;
        if (handle.isOpen()) {
            if (total > 0 && received + chunk.size() > total) {
                tooLong = true;
                reply->abort();
                return;
            }
            if (handle.write(chunk) != chunk.size()) {
                writeFailed = true;
                reply->abort();
                return;
            }
            received += chunk.size();
        } else {
            result.errorBody += chunk.left(kErrorBodyLimit - result.errorBody.size());
            // The rest of an error page is of no use to anyone: it is not read.
            if (result.errorBody.size() == kErrorBodyLimit) {
                errorBodyFull = true;
                if (reply->isRunning()) reply->abort();
                return;
            }
        }
    }
    if (lastReport.elapsed() > kProgressIntervalMs) {
        lastReport.restart();
        if (onProgress) onProgress(received);
    }
}

void FileDownload::completed()
{
    if (done || !reply) return;
    if (!responded) responseReceived();
    dataReceived();
    const QNetworkReply::NetworkError error = reply->error();
    const QString errorText = reply->errorString();
    const QString limitCrossed = TransferGuard::failureOf(reply);
    if (handle.isOpen()) {
        handle.flush();
        handle.close();
    }
    reply->deleteLater();
    reply = nullptr;
    result.received = received;

    Outcome outcome;
    if (rangeMismatch || errorBodyFull) {
        outcome.result = result;
    } else if (writeFailed) {
        outcome.failure = Failure{QNetworkReply::UnknownContentError,
                                  QStringLiteral("erro ao gravar %1: %2").arg(path, handle.errorString()), received};
    } else if (tooLong) {
        outcome.failure =
            Failure{QNetworkReply::ProtocolFailure,
                    QStringLiteral("o servidor mandou mais que os %1 bytes esperados").arg(total), received, true};
    } else if (!limitCrossed.isEmpty()) {
        outcome.failure = Failure{QNetworkReply::TimeoutError, limitCrossed, received};
    } else if (error != QNetworkReply::NoError && (error < 200 || !responded)) {
        // Connection-level errors (below 200 in Qt's numbering); HTTP statuses are results.
        outcome.failure = Failure{error, errorText, received};
    } else {
        outcome.result = result;
    }
    finish(outcome);
}

void FileDownload::finish(const Outcome &outcome)
{
    done = true;
    const auto callback = onFinished;
    if (callback) callback(outcome);
}
