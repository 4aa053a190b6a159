#pragma once

#include "core/delivery/PackageDownload.h"
#include "core/delivery/SceneCatalog.h"

#include <QMap>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QString>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>

class QNetworkAccessManager;
class Settings;

// How much the content service may send and for how long, in the installer and in turnelo-sync
// alike; tests shorten the times. A transfer that crosses one fails its attempt like any other.
struct DeliveryLimits {
    // A JSON catalog of a few hundred packages is tens of kilobytes.
    TransferLimits catalog{.maxBytes = 8 << 20,
                           .idleMs = 60 * 1000,
                           .deadlineMs = 2 * 60 * 1000,
                           .minBytes = 4096,
                           .rateWindowMs = 60 * 1000};
    TransferLimits package = FileDownload::kDefaultLimits;  // the catalog's size bounds the body
};

// Keeps the installed room current: fetches the catalog (with its entity tag), picks the base
// scene for this version, downloads it with resume, verifies its SHA-256, unpacks it into
// "Scenes.incoming", checks it and swaps it in by two renames; installs extra framings on request.
// A package that fails its digest, unpacking or check is deleted. Transient failures retry after
// 120 s, doubling up to 3600 s.
//
// Files under `root`: "Scenes" (".installed.json", ".framings.json" inside), "Scenes.incoming",
// "Scenes.old", "Framing.incoming", "Framing.old/<name>", "Downloads" ("catalog.json",
// "<file>.part", "<file>.part.json").
//
// Main thread. Hashing and unpacking run on the global thread pool; their results come back here.
class SceneInstaller : public QObject {
    Q_OBJECT
public:
    struct Phase {
        enum Kind { idle, checking, downloading, verifying, installing, ready, failed };
        Kind kind = idle;
        qint64 received = 0, total = 0;  // downloading
        QString message = {};            // failed
        bool operator==(const Phase &) const = default;
    };
    struct FramingDownload {
        QString name;
        qint64 received = 0, total = 0;
    };

    struct Options {
        QString root;        // default SceneLocation::supportDirectory()
        QString appVersion;  // default AppIdentity::version()
        QString baseURL;     // default Settings::contentServiceURL(), read at each request
        // Runs `then` after `delay` on this thread; a QTimer unless replaced (tests drive it).
        std::function<void(std::chrono::seconds delay, std::function<void()> then)> schedule;
        // Free bytes on the volume of a path; QStorageInfo unless replaced.
        std::function<qint64(const QString &path)> freeSpace;
        DeliveryLimits limits;
        // The room that ships with the program, shown while none is installed: with it a failed
        // run is logged and retried but is no problem the user needs to see.
        std::optional<QString> shippedRoom;
    };

    static constexpr const char *kNoSceneText =
        "No room is available for this version of Turnelo. Check for an update.";
    static constexpr const char *kFailedText = "The room couldn’t be installed. Turnelo will try again later.";
    static constexpr const char *kFramingFailedText = "Couldn’t download this framing. Click to try again.";

    SceneInstaller(Settings &settings, Options options = {}, QObject *parent = nullptr);
    ~SceneInstaller() override;

    // Starts a run unless one is running.
    void sync();
    // Downloads and installs one framing made of `entries` (from framingEntries()).
    void installFraming(const QList<SceneCatalog::Entry> &entries, const QString &name);
    void refreshDownloadable();

    bool hasInstalledScene() const;
    // An installed scene or the shipped room: something to show whatever the network does.
    bool hasRoom() const;
    // Puts back a scene that an interrupted installation left in "Scenes.incoming"/"Scenes.old"
    // or "Framing.old", and removes staging leftovers. Called by the constructor.
    static void recover(const QString &root);
    // Delay before the next try after `attempts` consecutive transient failures.
    static std::chrono::seconds retryDelay(int attempts);

    const Phase &phase() const { return currentPhase; }
    const std::optional<QString> &sceneTitle() const { return title; }
    const QSet<QString> &downloadable() const { return downloadableNames; }
    const std::optional<FramingDownload> &framingDownload() const { return framingProgress; }
    const QMap<QString, qint64> &framingSizes() const { return sizes; }
    const QSet<QString> &framingFailed() const { return failedFramings; }
    const QMap<QString, QList<SceneCatalog::Entry>> &framingEntries() const { return entries; }
    bool framingRunning() const { return framingBusy; }
    bool running() const { return busy; }
    // Why the last finished run failed (its log text), or empty when it ended with the picked
    // scene installed. Set even when the phase stays `ready` for an installed older scene.
    const QString &lastRunError() const { return runError; }
    int attempts() const { return failures; }
    // A passing message for the user ("The room download changed on the server. …"), or empty.
    const QString &notice() const { return noticeText; }
    const QString &root() const { return rootPath; }
    // The last catalog fetched or read from the cache; none before the first.
    const std::optional<SceneCatalog> &catalog() const { return lastCatalog; }

    std::function<void()> onInstalled;

signals:
    void phaseChanged();
    void sceneTitleChanged();
    void framingsChanged();  // downloadable, sizes, entries, failed, running, download progress
    void noticeChanged();
    // A run ended (after its last phase change); see lastRunError().
    void runFinished();

private:
    void run();
    void fetchCatalog(std::function<void(std::optional<SceneCatalog>, QString error)> then);
    void catalogArrived(const SceneCatalog &catalog);
    void download(const SceneCatalog::Entry &entry, std::function<void(qint64, qint64)> progress,
                  std::function<void(const PackageDownload::Outcome &)> then);
    void installBase(const SceneCatalog::Entry &entry, const QString &package);
    void installFramingStep(const QString &name, QList<SceneCatalog::Entry> remaining, qint64 done, qint64 total);
    void framingFinished(const QString &name, const QString &error);
    void fail(const QString &message, bool transient);
    void runFailed(const QString &logText, const QString &userText = {});
    void endRun(const QString &error);
    void setPhase(Phase phase);
    void setNotice(const QString &text);
    std::optional<SceneCatalog::Entry> installedEntry() const;
    QString baseURL() const;
    QString scenesPath() const;
    QString downloadsPath() const;

    Settings &settings;
    Options options;
    QString rootPath;
    std::unique_ptr<QNetworkAccessManager> network;
    Phase currentPhase;
    std::optional<QString> title;
    QSet<QString> downloadableNames;
    std::optional<FramingDownload> framingProgress;
    QMap<QString, qint64> sizes;
    QSet<QString> failedFramings;
    QMap<QString, QList<SceneCatalog::Entry>> entries;
    std::optional<SceneCatalog> lastCatalog;
    bool busy = false;
    bool framingBusy = false;
    QList<SceneCatalog::Entry> framingPackages;  // of the framing being installed, for its record
    int failures = 0;
    quint64 retryGeneration = 0;  // a newer run drops a pending retry
    QString noticeText;
    QString runError;
};
