#pragma once

#include "core/network/TransferGuard.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QObject>
#include <QPointer>
#include <functional>
#include <memory>
#include <optional>

class QNetworkAccessManager;

// Streams one HTTP response body into a file. A 206 answer is appended to what the file already
// holds (when its Content-Range starts at the file's end), a 200 answer replaces the file, and any
// other status keeps up to 16 KiB of the body for the caller and ends the transfer there. The body
// never sits in memory beyond the reply's small read buffer, and never takes the file past
// `expectedTotal`: a server that announces or sends more fails the transfer (`tooLong`).
//
// One object per transfer; it lives on the thread that starts it (the main thread for the
// installer), where `onProgress`, `onResponse` and `onFinished` are called. Qt's HTTP engine
// runs the socket on its own thread; here only the chunk writes happen.
class FileDownload : public QObject {
    Q_OBJECT
public:
    struct Result {
        int status = 0;  // 0 before a response
        std::optional<QString> etag;
        std::optional<QString> retryAfter;
        QByteArray errorBody;  // unsuccessful statuses only; at most kErrorBodyLimit (whole chunks)
        qint64 received = 0;   // bytes in the file at the end, kept bytes included
    };
    // A transport failure (no connection, a limit of `limits` crossed (TimeoutError), dropped
    // connection, write error, cancel, a body longer than expected). The bytes written so far stay
    // in the file.
    struct Failure {
        QNetworkReply::NetworkError code = QNetworkReply::UnknownNetworkError;
        QString message;
        qint64 received = 0;
        bool tooLong = false;  // the file is not the one expected: not worth continuing
    };
    struct Outcome {
        std::optional<Result> result;  // set unless `failure` is
        std::optional<Failure> failure;
    };

    static constexpr qint64 kErrorBodyLimit = 16384;
    static constexpr int kProgressIntervalMs = 200;
    // The size of the file bounds the body; time is what needs a limit. Generous enough for a
    // package of gigabytes on a slow line, never for a server that trickles.
    static constexpr TransferLimits kDefaultLimits{.maxBytes = 0,
                                                   .idleMs = 60 * 1000,
                                                   .deadlineMs = 6 * 60 * 60 * 1000,
                                                   .minBytes = 4096,
                                                   .rateWindowMs = 60 * 1000};

    FileDownload(QString file, qint64 expectedTotal, QObject *parent = nullptr);
    ~FileDownload() override;

    // Called with the bytes now in the file, at most every kProgressIntervalMs.
    std::function<void(qint64 received)> onProgress;
    // Called once when a 200 or 206 response's headers arrive, before any body byte is written.
    std::function<void(const Result &)> onResponse;
    // Called exactly once.
    std::function<void(const Outcome &)> onFinished;
    // Set before start().
    TransferLimits limits = kDefaultLimits;

    // Starts the transfer under `limits`; `request` gets "Accept-Encoding: identity" added.
    // The manager must outlive the transfer; nullptr makes a private one.
    void start(QNetworkRequest request, QNetworkAccessManager *manager = nullptr);
    // Cancels the transfer; onFinished reports an OperationCanceledError failure.
    void cancel();

    const QString &file() const { return path; }
    qint64 expectedTotal() const { return total; }

private:
    void responseReceived();
    void dataReceived();
    void completed();
    void finish(const Outcome &outcome);

    QString path;
    qint64 total = 0;
    std::unique_ptr<QNetworkAccessManager> ownManager;
    QPointer<QNetworkReply> reply;
    QFile handle;
    bool responded = false;
    bool rangeMismatch = false;
    bool writeFailed = false;
    bool tooLong = false;
    bool errorBodyFull = false;
    bool done = false;
    qint64 received = 0;
    Result result;
    QElapsedTimer lastReport;
};
