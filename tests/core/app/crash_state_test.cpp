// Kills a process that writes every kind of Turnelo state (settings, desktop snapshot, history
// index and covers, catalog cache and its tag, partial-download records, an installation) with
// SIGKILL at random moments of each write, a hundred times each, and checks after each what the next
// start finds: every file reads, nothing acknowledged is lost, and the installer's recovery leaves
// one whole scene.

#include "core/app/Settings.h"
#include "core/delivery/SceneInstaller.h"
#include "core/music/HistoryStore.h"
#include "NginxServer.h"
#include "ScenePackages.h"
#include "TestSupport.h"

#include <QDirIterator>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>
#include <gtest/gtest.h>
#include <iostream>
#include <map>

using namespace testsupport;

namespace {

// One scene package as the server offers it, and what it unpacks to.
struct Offer {
    SceneCatalog::Entry entry;
    QByteArray package;
    QByteArray catalog;
    QString etag;
    std::map<QString, QByteArray> files;
};

// What the writer has acknowledged, and what it had begun but not acknowledged when killed.
struct Expected {
    std::map<QString, qint64> settings;
    std::optional<std::pair<QString, qint64>> pendingSetting;
    std::optional<qint64> snapshot, pendingSnapshot;
    QStringList albums;  // oldest first
    std::optional<QString> pendingAlbum;
    std::optional<int> installed, pendingInstall;
};

constexpr int stackLimit = 4;
const QStringList kinds{"settings", "snapshot", "history", "catalog", "download", "install"};

QStringList filesUnder(const QString &dir)
{
    QStringList out;
    QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) out.append(QDir(dir).relativeFilePath(it.next()));
    out.sort();
    return out;
}

struct CrashStateTest : ::testing::Test {
    QTemporaryDir temp;
    NginxServer server;
    Offer offers[2];
    QString root() const { return temp.filePath("state"); }
    QString support() const { return root() + "/support"; }

    void SetUp() override
    {
        ASSERT_TRUE(server.start());
        for (int i = 0; i < 2; ++i) {
            const QString scenes = server.docRoot() + QStringLiteral("/%1/v1/scenes").arg(i);
            QDir().mkpath(scenes);
            Offer &o = offers[i];
            // Big enough that downloading, hashing and unpacking each take a while.
            o.entry = scenepackages::publishScene(scenes, temp.filePath("work"), "apt.zip",
                                                  QStringLiteral("scene%1").arg(i), 3'000'000, quint32(7 + i));
            scenepackages::writeCatalog(scenes, {o.entry});
            // The two catalogs are as long as each other: a day apart, their tags differ.
            QFile catalog(scenes + "/manifest");
            catalog.open(QIODevice::ReadWrite);
            catalog.setFileTime(QDateTime::currentDateTime().addDays(-i), QFileDevice::FileModificationTime);
            catalog.close();
            o.package = readFile(scenes + "/apt.zip");
            o.catalog = readFile(scenes + "/manifest");
            // nginx's tag: modification time and length in hexadecimal.
            const QFileInfo info(scenes + "/manifest");
            o.etag =
                QStringLiteral("\"%1-%2\"").arg(info.lastModified().toSecsSinceEpoch(), 0, 16).arg(info.size(), 0, 16);
            for (const auto &z : scenepackages::entriesOf(temp.filePath("work/src/scene%1").arg(i)))
                o.files[z.name] = z.data;
        }
        QDir().mkpath(root());
        Settings(root() + "/settings.json").setStackLimit(stackLimit);
    }

    QString url(int i) const { return server.baseURL() + QString::number(i) + "/"; }

    QProcess *startWriter(int firstRound, bool once = false)
    {
        auto *p = new QProcess;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_STATE_HOME", temp.filePath("logs"));
        p->setProcessEnvironment(env);
        p->setProgram(STATE_WRITER);
        QStringList args{root(), QString::number(firstRound), url(0), url(1)};
        if (once) args << "once";
        p->setArguments(args);
        p->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        p->start();
        return p;
    }

    // Applies one line of the writer to what is expected.
    void follow(const QString &line, Expected &e, int &round) const
    {
        const QStringList w = line.split(' ');
        const QString what = w.value(0), kind = w.value(1);
        if (what == "begin" && kind == "settings") {
            round = w[3].toInt();
            e.pendingSetting = {w[2], w[3].toLongLong()};
        } else if (what == "ack" && kind == "settings") {
            e.settings[w[2]] = w[3].toLongLong();
            e.pendingSetting.reset();
        } else if (kind == "snapshot") {
            (what == "begin" ? e.pendingSnapshot : e.snapshot) = w[2].toLongLong();
            if (what == "ack") e.pendingSnapshot.reset();
        } else if (kind == "history") {
            if (what == "begin") {
                e.pendingAlbum = "Album " + w[2];
            } else {
                e.albums.append("Album " + w[2]);
                e.pendingAlbum.reset();
            }
        } else if (what == "begin" && kind == "catalog") {
            e.pendingInstall = round % 2;
        } else if (what == "ack" && kind == "install") {
            e.installed = w[2].toInt();
            e.pendingInstall.reset();
        }
    }

    // The state as the next start finds it, checked against what was acknowledged; what a write
    // that was under way when the process died left behind becomes the expectation from then on.
    void verify(Expected &e, const QString &when)
    {
        SCOPED_TRACE(when.toStdString());
        Settings settings(root() + "/settings.json");
        EXPECT_EQ(settings.stackLimit(), stackLimit);
        for (auto &[key, value] : e.settings) {
            const qint64 now = settings.value(key).toLongLong();
            if (e.pendingSetting && e.pendingSetting->first == key && now == e.pendingSetting->second) value = now;
            EXPECT_EQ(now, value) << key.toStdString();
        }
        if (e.pendingSetting && !e.settings.count(e.pendingSetting->first) &&
            settings.contains(e.pendingSetting->first)) {
            EXPECT_EQ(settings.value(e.pendingSetting->first).toLongLong(), e.pendingSetting->second);
            e.settings[e.pendingSetting->first] = e.pendingSetting->second;
        }
        const auto snapshot = settings.desktopSnapshot();
        const std::optional<qint64> round =
            snapshot ? std::optional<qint64>(snapshot->value("round").toLongLong()) : std::nullopt;
        if (round && e.pendingSnapshot && *round == *e.pendingSnapshot) e.snapshot = round;
        EXPECT_EQ(round, e.snapshot);

        {
            HistoryStore history(settings, root() + "/history");
            QStringList found;
            for (const HistoryStore::Entry &entry : history.entries()) {
                found.prepend(entry.album);
                EXPECT_FALSE(QImage(history.dir() + "/" + entry.file).isNull()) << entry.album.toStdString();
            }
            QStringList withPending = e.albums;
            if (e.pendingAlbum) withPending.append(*e.pendingAlbum);
            if (found == withPending.mid(std::max<qsizetype>(0, withPending.size() - stackLimit)))
                e.albums = withPending;
            EXPECT_EQ(found.join(", ").toStdString(),
                      e.albums.mid(std::max<qsizetype>(0, e.albums.size() - stackLimit)).join(", ").toStdString());
        }

        SceneInstaller::Options options;
        options.root = support();
        options.schedule = [](std::chrono::seconds, std::function<void()>) {};
        SceneInstaller installer(settings, options);  // recovers what an install left half done
        EXPECT_TRUE(QDir(support()).entryList({"*.incoming", "*.old"}, QDir::AllEntries | QDir::Hidden).isEmpty());
        const QJsonObject record = QJsonDocument::fromJson(readFile(support() + "/Scenes/.installed.json")).object();
        std::optional<int> installed;
        for (int i = 0; i < 2; ++i)
            if (record.value("sha256").toString() == offers[i].entry.sha256) installed = i;
        EXPECT_EQ(installer.hasInstalledScene(), installed.has_value());
        if (installed && installed == e.pendingInstall) e.installed = installed;
        EXPECT_EQ(installed, e.installed);
        if (installed) {
            QStringList expected;
            for (const auto &[name, data] : offers[*installed].files) expected << name;
            expected << ".installed.json";
            expected.sort();
            EXPECT_EQ(filesUnder(support() + "/Scenes"), expected);
            for (const auto &[name, data] : offers[*installed].files)
                EXPECT_TRUE(readFile(support() + "/Scenes/" + name) == data) << name.toStdString();
        }

        // The catalog cache is a whole catalog, and a tag names the one it holds.
        const QString cache = support() + "/Downloads/catalog.json";
        const auto tag = settings.sceneCatalogETag();
        if (QFileInfo::exists(cache)) {
            const QByteArray bytes = readFile(cache);
            const int which = bytes == offers[0].catalog ? 0 : bytes == offers[1].catalog ? 1 : -1;
            EXPECT_NE(which, -1) << bytes.left(200).toStdString();
            if (tag && which >= 0) EXPECT_EQ(*tag, offers[which].etag);
        } else {
            EXPECT_FALSE(tag.has_value());
        }
        // A partial download is a prefix of the package its record names.
        for (const QString &name : QDir(support() + "/Downloads").entryList({"*.part.json"})) {
            const QJsonObject record = QJsonDocument::fromJson(readFile(support() + "/Downloads/" + name)).object();
            const QString sha = record.value("sha256").toString();
            const int which = sha == offers[0].entry.sha256 ? 0 : sha == offers[1].entry.sha256 ? 1 : -1;
            ASSERT_NE(which, -1) << name.toStdString();
            const QByteArray part = readFile(support() + "/Downloads/" + name.chopped(5));
            EXPECT_LE(part.size(), offers[which].package.size());
            EXPECT_TRUE(offers[which].package.startsWith(part)) << "partial file differs from the package";
        }
        // The writer is gone: nothing of it is under way any more.
        e.pendingSetting.reset();
        e.pendingSnapshot.reset();
        e.pendingAlbum.reset();
        e.pendingInstall.reset();
    }
};

}  // namespace

TEST_F(CrashStateTest, AHundredKillsInEveryWritePathLoseNothingAcknowledged)
{
    Expected expected;
    // How long each path took when it was not killed, in milliseconds; a kill falls at a random
    // moment of one of those spans, so that it lands inside the path as often as not.
    std::map<QString, std::vector<double>> windowMs;
    std::map<QString, int> kills, inside;
    QRandomGenerator random(20261123);
    int round = 0;

    for (int run = 0; run < 100 * int(kinds.size()); ++run) {
        const QString target = kinds[run % kinds.size()];
        std::unique_ptr<QProcess> writer(startWriter(run * 1000));
        ASSERT_TRUE(writer->waitForStarted(10000));
        QElapsedTimer clock;
        clock.start();
        std::map<QString, qint64> began;
        std::optional<qint64> killAt;
        QString phase;  // the installer's last phase
        QByteArray pending;
        bool killed = false, closed = false;
        while (!killed) {
            ASSERT_LT(clock.elapsed(), 120000) << "no " << target.toStdString() << " write in two minutes";
            if (killAt) {
                // Sleeps to the moment rather than polling, for paths shorter than a millisecond.
                const qint64 left = *killAt - clock.nsecsElapsed();
                if (left > 0) QThread::usleep(quint64(left / 1000));
                ::kill(pid_t(writer->processId()), SIGKILL);
                killed = true;
                break;
            }
            if (!writer->waitForReadyRead(100) && writer->state() == QProcess::NotRunning) {
                closed = true;
                break;
            }
            pending += writer->readAllStandardOutput();
            for (qsizetype nl; (nl = pending.indexOf('\n')) >= 0;) {
                const QString line = QString::fromUtf8(pending.left(nl));
                pending.remove(0, nl + 1);
                follow(line, expected, round);
                ASSERT_FALSE(line.startsWith("failed")) << line.toStdString();
                const QStringList w = line.split(' ');
                const qint64 now = clock.nsecsElapsed();
                // Where each path ends: its ack, or the next phase of the installer.
                QString ended = w[0] == "ack" ? w[1] : QString();
                if (w[0] == "begin" && w[1] == "download") ended = "catalog";
                if (w[0] == "begin" && w[1] == "verify") {
                    ended = "download";
                    began["install"] = now;  // hashing, unpacking and the swap count as the install
                }
                if (!ended.isEmpty() && began.count(ended)) windowMs[ended].push_back(double(now - began[ended]) / 1e6);
                if (w[0] == "begin" && QStringList{"catalog", "download", "verify", "install"}.contains(w[1]))
                    phase = w[1];
                if (w[0] == "begin" && kinds.contains(w[1]) && w[1] != "install") began[w[1]] = now;
                if (!killAt && w[0] == "begin" && (w[1] == target || (target == "install" && w[1] == "verify"))) {
                    const std::vector<double> &seen = windowMs[target];
                    const double span = seen.empty() ? 1.0 : seen[random.bounded(int(seen.size()))];
                    killAt = now + qint64(random.bounded(span) * 1e6);
                }
            }
        }
        ASSERT_FALSE(closed) << "the writer stopped by itself";
        writer->waitForFinished(10000);
        ++kills[target];
        // The kill fell inside the path when it came before the path's end was reported.
        const QByteArray rest = pending + writer->readAllStandardOutput();
        for (const QByteArray &l : rest.split('\n'))
            if (!l.isEmpty()) follow(QString::fromUtf8(l), expected, round);
        const bool installing = expected.pendingInstall.has_value();
        inside[target] += target == "settings"   ? expected.pendingSetting.has_value()
                          : target == "snapshot" ? expected.pendingSnapshot.has_value()
                          : target == "history"  ? expected.pendingAlbum.has_value()
                          : target == "install"  ? installing && (phase == "verify" || phase == "install")
                                                 : installing && phase == target;
        verify(expected, QStringLiteral("after kill %1 (%2)").arg(run + 1).arg(target));
        if (HasFailure()) return;
    }

    // After all that the writer still gets its work done.
    std::unique_ptr<QProcess> writer(startWriter(100000, true));
    ASSERT_TRUE(writer->waitForFinished(60000));
    const QString out = QString::fromUtf8(writer->readAllStandardOutput());
    for (const QString &line : out.split('\n', Qt::SkipEmptyParts)) follow(line, expected, round);
    EXPECT_TRUE(out.contains("ack install")) << out.toStdString();
    verify(expected, "after a run to the end");

    std::cout << "kills (inside the path):";
    for (const QString &k : kinds) std::cout << ' ' << k.toStdString() << ' ' << kills[k] << " (" << inside[k] << ")";
    std::cout << std::endl;
}
