#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTimer>

class QNetworkReply;
class QNetworkRequest;

// Limits on one HTTP transfer from a server nobody vouches for: a body that never ends, one that
// is far larger than asked for, or one that trickles in a byte at a time must each end in an error
// the caller can log, never in memory or a wait without bound.
struct TransferLimits {
    qint64 maxBytes = 0;           // body bytes, announced or received; 0: no cap
    int idleMs = 60 * 1000;        // without a single byte
    int deadlineMs = 0;            // the whole transfer; 0: none
    qint64 minBytes = 0;           // at least this much arrives in every rateWindowMs...
    int rateWindowMs = 60 * 1000;  // ...once the answer has begun; minBytes 0: no floor
};

// Watches one reply and aborts it at the first limit crossed; failureOf() then says which, in the
// log's words. It lives as the reply's child, so it goes when the reply does. Whoever reads the
// reply still gets its finished() as usual (with OperationCanceledError after an abort).
class TransferGuard : public QObject {
    Q_OBJECT
public:
    // Adds what every guarded request needs: no compressed bodies, whose size on the wire says
    // nothing about the size they unpack to.
    static void prepare(QNetworkRequest &request);
    // For a reply its owner reads as it arrives (keeping the read buffer small is the owner's part).
    static TransferGuard *watch(QNetworkReply *reply, const TransferLimits &limits);
    // For a reply read whole at the end: the guard takes the body in as it arrives, with a small read
    // buffer, so Qt never holds more than the cap. Call it before connecting to finished(), which
    // then finds the whole body in bodyOf().
    static TransferGuard *collect(QNetworkReply *reply, const TransferLimits &limits);
    // Why the guard stopped `reply`; empty when it did not.
    static QString failureOf(const QNetworkReply *reply);
    static QByteArray bodyOf(const QNetworkReply *reply);

    const QString &failure() const { return reason; }

private:
    TransferGuard(QNetworkReply *reply, const TransferLimits &limits);
    static TransferGuard *of(const QNetworkReply *reply);
    void take();
    void checkAnnounced();
    void received(qint64 bytes);
    void checkRate();
    void fail(const QString &why);

    QNetworkReply *reply;
    TransferLimits limits;
    QString reason;
    QByteArray body;
    bool collecting = false;
    QTimer idle;
    QTimer deadline;
    QTimer rate;
    qint64 bytes = 0;
    qint64 bytesAtWindowStart = 0;
};
