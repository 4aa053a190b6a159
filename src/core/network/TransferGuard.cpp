#include "core/network/TransferGuard.h"

#include <QNetworkReply>
#include <QNetworkRequest>

namespace {

QString seconds(int ms) { return QString::number(ms / 1000.0, 'g', 3) + QStringLiteral(" s"); }

}  // namespace

void TransferGuard::prepare(QNetworkRequest &request)
{
    request.setRawHeader("Accept-Encoding", "identity");
    // The guard's idle timer is the one that counts; Qt's own would end the reply unexplained.
    request.setTransferTimeout(0);
}

TransferGuard *TransferGuard::watch(QNetworkReply *reply, const TransferLimits &limits)
{
    return new TransferGuard(reply, limits);
}

TransferGuard *TransferGuard::collect(QNetworkReply *reply, const TransferLimits &limits)
{
    auto *guard = new TransferGuard(reply, limits);
    guard->collecting = true;
    reply->setReadBufferSize(64 * 1024);
    connect(reply, &QNetworkReply::readyRead, guard, &TransferGuard::take);
    return guard;
}

TransferGuard *TransferGuard::of(const QNetworkReply *reply)
{
    return reply ? reply->findChild<TransferGuard *>(QString(), Qt::FindDirectChildrenOnly) : nullptr;
}

QString TransferGuard::failureOf(const QNetworkReply *reply)
{
    const TransferGuard *guard = of(reply);
    return guard ? guard->failure() : QString();
}

QByteArray TransferGuard::bodyOf(const QNetworkReply *reply)
{
    const TransferGuard *guard = of(reply);
    return guard ? guard->body : QByteArray();
}

void TransferGuard::take()
{
    if (!reply->isOpen()) return;
    body += reply->readAll();
    if (limits.maxBytes > 0 && body.size() > limits.maxBytes) {
        body.clear();
        fail(QStringLiteral("resposta passou de %1 bytes").arg(limits.maxBytes));
    }
}

TransferGuard::TransferGuard(QNetworkReply *r, const TransferLimits &l)
    : QObject(r)
    , reply(r)
    , limits(l)
{
    idle.setSingleShot(true);
    connect(&idle, &QTimer::timeout, this,
            [this] { fail(QStringLiteral("nenhum byte em ") + seconds(limits.idleMs)); });
    if (limits.idleMs > 0) idle.start(limits.idleMs);
    deadline.setSingleShot(true);
    connect(&deadline, &QTimer::timeout, this,
            [this] { fail(QStringLiteral("passou do prazo de ") + seconds(limits.deadlineMs)); });
    if (limits.deadlineMs > 0) deadline.start(limits.deadlineMs);
    connect(&rate, &QTimer::timeout, this, &TransferGuard::checkRate);

    connect(reply, &QNetworkReply::metaDataChanged, this, &TransferGuard::checkAnnounced);
    connect(reply, &QNetworkReply::downloadProgress, this, [this](qint64 got, qint64) { received(got); });
    connect(reply, &QNetworkReply::finished, this, [this] {
        if (collecting && reason.isEmpty()) take();
        idle.stop();
        deadline.stop();
        rate.stop();
    });
}

void TransferGuard::checkAnnounced()
{
    if (limits.idleMs > 0 && reply->isRunning()) idle.start(limits.idleMs);
    if (limits.minBytes > 0 && !rate.isActive() && reply->isRunning()) {
        bytesAtWindowStart = bytes;
        rate.start(limits.rateWindowMs);
    }
    const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
    if (limits.maxBytes > 0 && length.isValid() && length.toLongLong() > limits.maxBytes)
        fail(QStringLiteral("resposta anuncia %1 bytes, o limite é %2").arg(length.toLongLong()).arg(limits.maxBytes));
}

void TransferGuard::received(qint64 got)
{
    if (!reply->isRunning() || got == bytes) return;
    bytes = got;
    if (limits.idleMs > 0) idle.start(limits.idleMs);
    if (limits.maxBytes > 0 && bytes > limits.maxBytes)
        fail(QStringLiteral("resposta passou de %1 bytes").arg(limits.maxBytes));
}

void TransferGuard::checkRate()
{
    const qint64 inWindow = bytes - bytesAtWindowStart;
    bytesAtWindowStart = bytes;
    if (inWindow < limits.minBytes)
        fail(QStringLiteral("lenta demais: %1 bytes em %2").arg(inWindow).arg(seconds(limits.rateWindowMs)));
}

void TransferGuard::fail(const QString &why)
{
    if (!reason.isEmpty() || !reply->isRunning()) return;
    reason = why;
    idle.stop();
    deadline.stop();
    rate.stop();
    reply->abort();
}
