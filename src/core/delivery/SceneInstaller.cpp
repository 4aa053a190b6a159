#include "core/delivery/SceneInstaller.h"

#include "core/app/AppIdentity.h"
#include "core/app/Log.h"
#include "core/scene/SceneLocation.h"
#include "core/delivery/SceneDiskTransaction.h"
#include "core/delivery/SceneUnpacker.h"
#include "core/app/Settings.h"
#include "core/app/StateFile.h"
#include "core/network/TransferGuard.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFutureWatcher>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QThread>
#include <QTimer>
#include <QtConcurrent/QtConcurrentRun>

namespace {

using namespace SceneDisk;

// Runs `work` on the global pool and hands its error text (empty on success) to `then` on
// `context`'s thread. `work` must not touch `context`.
void inBackground(QObject *context, std::function<void()> work, std::function<void(QString)> then)
{
    auto *watcher = new QFutureWatcher<QString>(context);
    QObject::connect(watcher, &QFutureWatcherBase::finished, context, [watcher, then] {
        const QString error = watcher->result();
        watcher->deleteLater();
        then(error);
    });
    watcher->setFuture(QtConcurrent::run([work]() -> QString {
        try {
            work();
            return {};
        } catch (const std::exception &e) {
            return QString::fromUtf8(e.what());
        }
    }));
}

// The cached catalog, when it is there and still reads as one.
std::optional<SceneCatalog> cachedCatalog(const QString &path)
{
    const auto doc = StateFile::readJson(path);
    if (!doc) return std::nullopt;
    try {
        return SceneCatalog::parse(doc->toJson(QJsonDocument::Compact));
    } catch (const DeliveryError &) {
        return std::nullopt;
    }
}

QString megabytes(qint64 bytes) { return QString::number(double(bytes) / 1e6, 'f', 1); }

}  // namespace

SceneInstaller::SceneInstaller(Settings &settings, Options opts, QObject *parent)
    : QObject(parent)
    , settings(settings)
    , options(std::move(opts))
{
    rootPath = options.root.isEmpty() ? SceneLocation::supportDirectory() : options.root;
    if (options.appVersion.isEmpty()) options.appVersion = AppIdentity::version();
    if (!options.schedule) {
        options.schedule = [this](std::chrono::seconds delay, std::function<void()> then) {
            QTimer::singleShot(std::chrono::duration_cast<std::chrono::milliseconds>(delay), this, std::move(then));
        };
    }
    network = std::make_unique<QNetworkAccessManager>();
    network->setCookieJar(nullptr);
    recover(rootPath);
    // An empty "Scenes" gives the plates watcher a folder to watch before the first installation.
    QDir().mkpath(scenesPath());
    refreshDownloadable();
}

SceneInstaller::~SceneInstaller() = default;

QString SceneInstaller::scenesPath() const { return rootPath + QLatin1Char('/') + kScenes; }
QString SceneInstaller::downloadsPath() const { return rootPath + QLatin1Char('/') + kDownloads; }

QString SceneInstaller::baseURL() const
{
    QString url = options.baseURL.isEmpty() ? settings.contentServiceURL() : options.baseURL;
    if (!url.endsWith(QLatin1Char('/'))) url += QLatin1Char('/');
    return url;
}

bool SceneInstaller::hasInstalledScene() const
{
    return QFileInfo(scenesPath() + QLatin1Char('/') + kManifest).isFile();
}

bool SceneInstaller::hasRoom() const
{
    return hasInstalledScene() ||
           (options.shippedRoom && QFileInfo(*options.shippedRoom + QLatin1Char('/') + kManifest).isFile());
}

std::chrono::seconds SceneInstaller::retryDelay(int attempts)
{
    const int exponent = std::clamp(attempts, 0, 6);
    return std::chrono::seconds(std::min<qint64>((qint64(1) << exponent) * 60, 3600));
}

void SceneInstaller::recover(const QString &root) { SceneDisk::recover(root); }

void SceneInstaller::setPhase(Phase phase)
{
    if (phase == currentPhase) return;
    currentPhase = std::move(phase);
    emit phaseChanged();
}

void SceneInstaller::setNotice(const QString &text)
{
    if (noticeText == text) return;
    noticeText = text;
    emit noticeChanged();
}

void SceneInstaller::sync()
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (busy) return;
    busy = true;
    ++retryGeneration;
    run();
}

void SceneInstaller::run()
{
    setPhase({Phase::checking});
    fetchCatalog([this](std::optional<SceneCatalog> catalog, QString error) {
        if (!catalog) {
            runFailed(error);
            return;
        }
        catalogArrived(*catalog);
    });
}

void SceneInstaller::fetchCatalog(std::function<void(std::optional<SceneCatalog>, QString)> then)
{
    const QString cache = downloadsPath() + QStringLiteral("/catalog.json");
    QNetworkRequest request(QUrl(baseURL() + QStringLiteral("v1/scenes/manifest")));
    request.setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("Turnelo/") + AppIdentity::version());
    TransferGuard::prepare(request);
    const auto tag = settings.sceneCatalogETag();
    // A 304 is answered from the cache, so the tag goes only with a cache that reads.
    std::optional<SceneCatalog> cached = tag ? cachedCatalog(cache) : std::nullopt;
    if (cached) request.setRawHeader("If-None-Match", tag->toLatin1());
    QNetworkReply *reply = network->get(request);
    TransferGuard::collect(reply, options.limits.catalog);
    // An error page says nothing that its status and headers do not: not a byte of it is read.
    connect(reply, &QNetworkReply::metaDataChanged, this, [reply] {
        if (reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() >= 400) reply->abort();
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply, cache, cached, then] {
        reply->deleteLater();
        const QVariant code = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        // An error status says it all, whatever stopped its page.
        const QString crossed = TransferGuard::failureOf(reply);
        if (!crossed.isEmpty() && code.toInt() < 400) {
            then(std::nullopt, QStringLiteral("catálogo recusado: ") + crossed);
            return;
        }
        if (!code.isValid()) {
            then(std::nullopt, QStringLiteral("falha de rede ao buscar o catálogo: ") + reply->errorString());
            return;
        }
        const int status = code.toInt();
        try {
            if (status == 304) {
                if (!cached)
                    throw DeliveryError(DeliveryError::Kind::disk,
                                        QStringLiteral("catálogo em cache ilegível: ") + cache);
                then(*cached, {});
            } else if (status == 200) {
                const QByteArray body = TransferGuard::bodyOf(reply);
                SceneCatalog catalog = SceneCatalog::parse(body);
                QDir().mkpath(downloadsPath());
                // The old tag goes before the cache changes: a crash in between must not leave a
                // tag that names a catalog the cache no longer holds.
                settings.setSceneCatalogETag(std::nullopt);
                if (!StateFile::write(cache, body))
                    Log::write(QStringLiteral("Cenas: não foi possível gravar ") + cache);
                const QByteArray etag = reply->rawHeader("ETag");
                if (QFileInfo(cache).isFile() && !etag.isEmpty())
                    settings.setSceneCatalogETag(QString::fromLatin1(etag));
                then(std::move(catalog), {});
            } else {
                QString text = QStringLiteral("HTTP %1 ao buscar o catálogo").arg(status);
                if (reply->hasRawHeader("Retry-After"))
                    text +=
                        QStringLiteral(" (Retry-After: %1)").arg(QString::fromLatin1(reply->rawHeader("Retry-After")));
                then(std::nullopt, text);
            }
        } catch (const std::exception &e) {
            then(std::nullopt, QString::fromUtf8(e.what()));
        }
    });
}

void SceneInstaller::catalogArrived(const SceneCatalog &catalog)
{
    lastCatalog = catalog;
    const auto picked = catalog.pick(options.appVersion);
    if (!picked) {
        const QString reason = QStringLiteral("nenhuma cena compatível com ") + options.appVersion;
        Log::write(QStringLiteral("Cenas: ") + reason);
        busy = false;
        if (hasRoom())
            setPhase({Phase::ready});
        else
            setPhase({Phase::failed, 0, 0, QString::fromUtf8(kNoSceneText)});
        refreshDownloadable();
        endRun(reason);
        return;
    }
    const auto installed = installedEntry();
    if (hasInstalledScene() && installed && installed->sha256.compare(picked->sha256, Qt::CaseInsensitive) == 0) {
        failures = 0;
        busy = false;
        setNotice({});
        setPhase({Phase::ready});
        refreshDownloadable();
        endRun({});
        return;
    }

    const SceneCatalog::Entry entry = *picked;
    Log::write(QStringLiteral("Cenas: baixando %1 (%2 MB)").arg(entry.title, megabytes(entry.size)));
    title = entry.title;
    emit sceneTitleChanged();
    setPhase({Phase::downloading, 0, entry.size});
    download(
        entry,
        [this](qint64 received, qint64 total) {
            setPhase({Phase::downloading, received, total});
        },
        [this, entry](const PackageDownload::Outcome &outcome) {
            if (!outcome.ok) {
                runFailed(outcome.message, outcome.userText);
                return;
            }
            setPhase({Phase::verifying});
            const QString file = outcome.file, downloads = downloadsPath();
            inBackground(
                this,
                [file, entry, downloads] {
                    try {
                        verifyDigest(file, entry);
                    } catch (...) {
                        // A corrupt package is never continued: the next try starts from zero.
                        PackageDownload::discard(downloads, entry);
                        throw;
                    }
                },
                [this, entry, file](const QString &error) {
                    if (!error.isEmpty()) {
                        runFailed(error);
                        return;
                    }
                    installBase(entry, file);
                });
        });
}

void SceneInstaller::download(const SceneCatalog::Entry &entry, std::function<void(qint64, qint64)> progress,
                              std::function<void(const PackageDownload::Outcome &)> then)
{
    // A claimed unpacked size that the package could not honestly hold is refused before a byte
    // of it is fetched.
    try {
        SceneUnpacker::limitFor(entry);
    } catch (const DeliveryError &e) {
        PackageDownload::Outcome refused;
        refused.message = QString::fromUtf8(e.what());
        then(refused);
        return;
    }
    auto *job = new PackageDownload(entry, downloadsPath(), baseURL(), this);
    job->manager = network.get();
    job->limits = options.limits.package;
    job->extraSpaceNeeded = entry.unpackedSize.value_or(entry.size);
    if (options.freeSpace) job->freeSpace = options.freeSpace;
    job->onProgress = std::move(progress);
    job->onRestart = [this] { setNotice(QString::fromUtf8(PackageDownload::kChangedOnServerText)); };
    job->onFinished = [job, then](const PackageDownload::Outcome &outcome) {
        job->deleteLater();
        then(outcome);
    };
    job->start();
}

void SceneInstaller::installBase(const SceneCatalog::Entry &entry, const QString &package)
{
    setPhase({Phase::installing});
    const QString root = rootPath, downloads = downloadsPath();
    inBackground(
        this, [root, package, entry] { SceneDisk::installBase(root, package, entry); },
        [this, entry, downloads](const QString &error) {
            PackageDownload::discard(downloads, entry);
            if (!error.isEmpty()) {
                runFailed(error);
                return;
            }
            failures = 0;
            busy = false;
            setNotice({});
            setPhase({Phase::ready});
            Log::write(QStringLiteral("Cenas: ") + entry.title + QStringLiteral(" instalada"));
            if (onInstalled) onInstalled();
            refreshDownloadable();
            endRun({});
        });
}

void SceneInstaller::runFailed(const QString &logText, const QString &userText)
{
    Log::write(QStringLiteral("Cenas: falhou: ") + logText);
    busy = false;
    fail(userText.isEmpty() ? QString::fromUtf8(kFailedText) : userText, true);
    endRun(logText);
}

void SceneInstaller::endRun(const QString &error)
{
    runError = error;
    emit runFinished();
}

void SceneInstaller::fail(const QString &message, bool transient)
{
    if (hasRoom())
        setPhase({Phase::ready});
    else
        setPhase({Phase::failed, 0, 0, message});
    if (!transient) return;
    ++failures;
    const std::chrono::seconds delay = retryDelay(failures);
    Log::write(QStringLiteral("Cenas: nova tentativa em %1 s").arg(delay.count()));
    const quint64 generation = ++retryGeneration;
    QPointer<SceneInstaller> self(this);
    options.schedule(delay, [self, generation] {
        if (self && self->retryGeneration == generation) self->sync();
    });
}

std::optional<SceneCatalog::Entry> SceneInstaller::installedEntry() const
{
    const auto doc = StateFile::readJson(scenesPath() + QLatin1Char('/') + kInstalledRecord);
    if (!doc || !doc->isObject()) return std::nullopt;
    try {
        return SceneCatalog::Entry::fromJson(doc->object());
    } catch (const DeliveryError &) {
        return std::nullopt;
    }
}

void SceneInstaller::refreshDownloadable()
{
    if (!lastCatalog) lastCatalog = cachedCatalog(downloadsPath() + QStringLiteral("/catalog.json"));
    entries.clear();
    sizes.clear();
    downloadableNames.clear();
    const auto installed = installedEntry();
    if (lastCatalog && installed && hasInstalledScene()) {
        entries = lastCatalog->framings(*installed, options.appVersion);
        for (auto it = entries.cbegin(); it != entries.cend(); ++it) {
            qint64 total = 0;
            for (const SceneCatalog::Entry &e : it.value()) total += e.size;
            sizes.insert(it.key(), total);
            if (!QFileInfo(scenesPath() + QLatin1Char('/') + it.key()).isDir()) downloadableNames.insert(it.key());
        }
    }
    emit framingsChanged();
}

void SceneInstaller::installFraming(const QList<SceneCatalog::Entry> &packages, const QString &name)
{
    Q_ASSERT(QThread::currentThread() == thread());
    if (framingBusy) return;
    framingBusy = true;
    failedFramings.remove(name);
    qint64 total = 0;
    for (const SceneCatalog::Entry &e : packages) total += e.size;
    Log::write(QStringLiteral("Cenas: baixando enquadramento %1 (%2 MB em %3 pacote(s))")
                   .arg(name, megabytes(total))
                   .arg(packages.size()));
    framingProgress = FramingDownload{name, 0, total};
    emit framingsChanged();
    QString refusal;
    if (!SceneCatalog::isSafeName(name))
        refusal = QStringLiteral("enquadramento inválido: ") + name;
    else if (packages.isEmpty())
        refusal = QStringLiteral("nenhum pacote para o enquadramento");
    else if (!hasInstalledScene())
        refusal = QStringLiteral("nenhuma cena instalada");
    if (!refusal.isEmpty()) {
        framingFinished(name, refusal);
        return;
    }
    const QString incoming = rootPath + QLatin1Char('/') + kFramingIncoming;
    removeTree(incoming);
    QDir().mkpath(incoming);
    installFramingStep(name, packages, 0, total);
}

void SceneInstaller::installFramingStep(const QString &name, QList<SceneCatalog::Entry> remaining, qint64 done,
                                        qint64 total)
{
    const QString incoming = rootPath + QLatin1Char('/') + kFramingIncoming;
    if (remaining.isEmpty()) {
        const auto installed = installedEntry();
        const QString root = rootPath, baseDigest = installed ? installed->sha256 : QString();
        const QList<SceneCatalog::Entry> packages = framingPackages;
        inBackground(
            this, [root, name, packages, baseDigest] { SceneDisk::installFraming(root, name, packages, baseDigest); },
            [this, name](const QString &error) { framingFinished(name, error); });
        return;
    }
    const SceneCatalog::Entry entry = remaining.takeFirst();
    framingPackages.append(entry);
    download(
        entry,
        [this, name, done](qint64 received, qint64) {
            if (framingProgress && framingProgress->name == name) {
                framingProgress->received = done + received;
                emit framingsChanged();
            }
        },
        [this, name, entry, remaining, done, total, incoming](const PackageDownload::Outcome &outcome) {
            if (!outcome.ok) {
                framingFinished(name, outcome.message);
                return;
            }
            const QString file = outcome.file, downloads = downloadsPath();
            inBackground(
                this,
                [file, entry, incoming, downloads] {
                    try {
                        verifyDigest(file, entry);
                        SceneUnpacker::unpack(file, incoming, SceneUnpacker::limitFor(entry));
                    } catch (...) {
                        PackageDownload::discard(downloads, entry);
                        throw;
                    }
                    PackageDownload::discard(downloads, entry);
                },
                [this, name, remaining, done, total, entry](const QString &error) {
                    if (!error.isEmpty()) {
                        framingFinished(name, error);
                        return;
                    }
                    installFramingStep(name, remaining, done + entry.size, total);
                });
        });
}

void SceneInstaller::framingFinished(const QString &name, const QString &error)
{
    framingPackages.clear();
    if (!error.isEmpty()) {
        Log::write(QStringLiteral("Cenas: falhou: enquadramento ") + name + QStringLiteral(": ") + error);
        failedFramings.insert(name);
        removeTree(rootPath + QLatin1Char('/') + kFramingIncoming);
    } else {
        refreshDownloadable();
        Log::write(QStringLiteral("Cenas: enquadramento ") + name + QStringLiteral(" instalado"));
    }
    framingBusy = false;
    framingProgress.reset();
    emit framingsChanged();
}
