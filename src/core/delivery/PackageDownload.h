#pragma once

#include "core/delivery/FileDownload.h"
#include "core/delivery/SceneCatalog.h"

#include <QObject>
#include <QPointer>
#include <functional>
#include <optional>

class QNetworkAccessManager;

// Fetches one catalog package into "<downloads>/<file>.part", continuing an earlier partial file
// of the same package: the record "<file>.part.json" ({"sha256", "etag"}) ties the partial file
// to a digest, and "If-Range" to the server's entity tag, so a changed file is sent whole
// instead of spliced. A refused range (412/416) starts over from zero once per attempt. A server
// that sends more than the catalog's size loses what it sent: the partial file goes.
//
// Main thread. One object per attempt; `onFinished` is called exactly once.
class PackageDownload : public QObject {
    Q_OBJECT
public:
    struct Outcome {
        bool ok = false;
        QString file;      // the complete package when ok
        QString message;   // log text when not ok
        QString userText;  // shown text when it differs from the generic failure
        bool transient = true;
        int status = 0;   // HTTP status of the last response, 0 for none
        QByteArray body;  // error body of an unsuccessful status
        std::optional<QString> retryAfter;
    };

    static constexpr const char *kChangedOnServerText = "The room download changed on the server. It will start over.";

    PackageDownload(SceneCatalog::Entry entry, QString downloadsDir, QString baseURL, QObject *parent = nullptr);

    // Bytes the disk must still have free besides the rest of the package (e.g. the unpacked
    // size); checked after the partial file is judged and before any request.
    qint64 extraSpaceNeeded = 0;
    // Free bytes on the volume holding a path; QStorageInfo unless replaced.
    std::function<qint64(const QString &path)> freeSpace;
    QNetworkAccessManager *manager = nullptr;  // optional, shared
    // For each request; the catalog's size bounds the body besides.
    TransferLimits limits = FileDownload::kDefaultLimits;

    std::function<void(qint64 received, qint64 total)> onProgress;
    // The server's file changed; the download starts over (kChangedOnServerText).
    std::function<void()> onRestart;
    std::function<void(const Outcome &)> onFinished;

    void start();
    void cancel();

    QString partialPath() const;
    QString recordPath() const;
    static QString partialPath(const QString &downloadsDir, const SceneCatalog::Entry &entry);
    static QString recordPath(const QString &downloadsDir, const SceneCatalog::Entry &entry);
    // Removes the partial file and its record.
    static void discard(const QString &downloadsDir, const SceneCatalog::Entry &entry);
    // "1.2 GB", "340 MB" in the user's locale, rounded up: the amount shown in the free-space text.
    static QString formatBytes(qint64 bytes);

private:
    void attempt();
    void transferred(const FileDownload::Outcome &outcome);
    void writeRecord(const std::optional<QString> &etag);
    std::optional<QString> recordedEtag() const;
    void finish(Outcome outcome);

    SceneCatalog::Entry entry;
    QString downloads;
    QString base;
    bool restarted = false;
    bool finished = false;
    QPointer<FileDownload> transfer;
};
