// Scene delivery figures:
//  1. download to disk over loopback (FileDownload) against `curl -o` of the same file: MB/s and ratio;
//  2. installing a 200 MB package: verify (SHA-256) + unpack + swap, timed from the verifying
//     phase to ready, with the package already downloaded.
// Everything lives in a temporary folder under /tmp and is removed at the end.
#include "../tests/support/NginxServer.h"
#include "../tests/support/ScenePackages.h"
#include "core/delivery/FileDownload.h"
#include "core/delivery/PackageDownload.h"
#include "core/delivery/SceneInstaller.h"
#include "core/app/Settings.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <cstdio>

using namespace scenepackages;

namespace {

template <typename Fn> double bestOf(int runs, Fn fn)
{
    double best = 1e99;
    for (int i = 0; i < runs; ++i) best = std::min(best, fn());
    return best;
}

void spinUntil(const std::function<bool()> &done)
{
    while (!done()) QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir tmp(QStringLiteral("/tmp/turnelo-delivery-bench-XXXXXX"));
    qputenv("XDG_STATE_HOME", (tmp.path() + "/state").toUtf8());
    const qint64 downloadBytes = 256LL << 20;
    const int runs = 3;

    NginxServer server;
    {
        // Written in 16 MiB pieces so the generator never holds the whole file.
        QFile f(server.scenesDir() + "/big.bin");
        f.open(QIODevice::WriteOnly);
        for (qint64 i = 0; i < downloadBytes / (16 << 20); ++i) f.write(randomBytes(16 << 20, quint32(i + 1)));
    }
    if (!server.start()) {
        std::fprintf(stderr, "nginx did not start\n");
        return 1;
    }
    const QString url = server.baseURL() + "v1/scenes/big.bin";
    const QString target = tmp.path() + "/download.bin";

    const double ours = bestOf(runs, [&] {
        QFile::remove(target);
        bool finished = false;
        FileDownload d(target, downloadBytes);
        d.onFinished = [&](const FileDownload::Outcome &) { finished = true; };
        QElapsedTimer t;
        t.start();
        d.start(QNetworkRequest(QUrl(url)));
        spinUntil([&] { return finished; });
        return t.nsecsElapsed() / 1e9;
    });
    const double curl = bestOf(runs, [&] {
        QFile::remove(target);
        QElapsedTimer t;
        t.start();
        QProcess::execute("curl", {"-s", "-o", target, url});
        return t.nsecsElapsed() / 1e9;
    });
    const double mb = downloadBytes / 1e6;
    std::printf("download %.0f MB over loopback (best of %d)\n", mb, runs);
    std::printf("  FileDownload  %8.1f MB/s  (%.3f s)\n", mb / ours, ours);
    std::printf("  curl -o       %8.1f MB/s  (%.3f s)\n", mb / curl, curl);
    std::printf("  ratio FileDownload/curl throughput: %.2f\n", curl / ours);
    QFile::remove(target);
    QFile::remove(server.scenesDir() + "/big.bin");

    // A 200 MB package: twenty 10 MB plates plus the manifest and masks, stored as a real one would be.
    const QString scene = tmp.path() + "/scene";
    makeSceneFolder(scene, "bench", 10'000'000, 100);
    for (int i = 1; i < 20; ++i)
        put(scene + QStringLiteral("/wide/light/plate%1.exr").arg(i), randomBytes(10'000'000, quint32(100 + i)));
    const QString root = tmp.path() + "/support";
    const QString package = server.scenesDir() + "/bench.zip";
    writeZip(package, entriesOf(scene));
    QDir(scene).removeRecursively();
    SceneCatalog::Entry entry = entryFor(package, "bench", "Bench");
    writeCatalog(server.scenesDir(), {entry});

    Settings settings(tmp.path() + "/settings.json");
    settings.setValue("contentServiceURL", server.baseURL());
    const double install = bestOf(runs, [&] {
        QDir(root + "/Scenes").removeRecursively();
        // Already downloaded: the run goes straight from the catalog to verifying.
        QDir().mkpath(root + "/Downloads");
        QFile::copy(package, PackageDownload::partialPath(root + "/Downloads", entry));
        put(PackageDownload::recordPath(root + "/Downloads", entry),
            QJsonDocument(QJsonObject{{"sha256", entry.sha256}}).toJson());
        SceneInstaller::Options o;
        o.root = root;
        o.schedule = [](std::chrono::seconds, std::function<void()>) {};
        SceneInstaller installer(settings, o);
        QElapsedTimer t;
        QObject::connect(&installer, &SceneInstaller::phaseChanged, [&] {
            if (installer.phase().kind == SceneInstaller::Phase::verifying) t.start();
        });
        installer.sync();
        spinUntil([&] { return !installer.running(); });
        if (installer.phase().kind != SceneInstaller::Phase::ready || !t.isValid()) {
            std::fprintf(stderr, "install failed\n");
            std::exit(1);
        }
        return t.nsecsElapsed() / 1e9;
    });
    std::printf("install %.0f MB package (verify + unpack + swap, best of %d): %.3f s, %.1f MB/s\n", entry.size / 1e6,
                runs, install, entry.size / 1e6 / install);
    return 0;
}
