#pragma once

#include "core/network/TransferGuard.h"

#include <QImage>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>
#include <functional>

class QNetworkAccessManager;
class QNetworkReply;

// Fetches one album cover at a time for the now-playing monitor, from a file or over HTTP, as a
// player names it. The player is not trusted: a FIFO, a device, an endless or huge file, an answer
// that never ends or an image that decodes to gigabytes each end as a failed cover, and nothing
// is read or decoded on the main thread. A new load drops the one before it, whose result never
// arrives.
//
// Main thread only; `onLoaded` is called there, once per load that was not superseded.
class CoverLoader : public QObject {
    Q_OBJECT
public:
    static constexpr qint64 maxFileBytes = 20 * 1024 * 1024;
    static constexpr qint64 maxPixels = 6000 * 6000;
    static constexpr TransferLimits httpLimits{
        .maxBytes = maxFileBytes, .idleMs = 15000, .deadlineMs = 60000, .minBytes = 8192, .rateWindowMs = 15000};

    // The image is null on failure, with the reason in the log's words.
    std::function<void(const QImage &image, const QString &failure)> onLoaded;

    // `network` must outlive the loader.
    CoverLoader(QNetworkAccessManager &network, QObject *parent = nullptr);
    ~CoverLoader() override;

    // Starts loading `url` (file, http or https); drops whatever load was under way.
    void load(const QUrl &url);
    // Drops whatever load was under way.
    void cancel();

    // For tests: the limits an HTTP cover is held to.
    void setHttpLimits(const TransferLimits &limits) { http = limits; }

    // Reads a cover file without ever blocking on it: only a regular file, checked on the open
    // descriptor, of at most `maxBytes`. Empty with the reason in `failure` otherwise. Any thread.
    static QByteArray readFile(const QString &path, qint64 maxBytes, QString &failure);
    // Decodes cover bytes to an image no side of which exceeds `maxSide`, refusing images of
    // more than maxPixels before any pixel is allocated. Any thread.
    static QImage decode(const QByteArray &bytes, int maxSide, QString &failure);

private:
    void finishOnWorker(std::function<QByteArray(QString &)> read);
    void deliver(unsigned generation, const QImage &image, const QString &failure);

    QNetworkAccessManager &network;
    TransferLimits http = httpLimits;
    QPointer<QNetworkReply> reply;
    unsigned generation = 0;
};
