// Kills a process that writes every kind of Turnelo state (settings, history, catalog cache and its tag,
// partial downloads, an installation) with SIGKILL at random moments of each write, a hundred times each;
// after each, every file reads, nothing acknowledged is lost and one whole scene is installed. The desktop
// snapshot is one more settings key, written the same way.

#include "core/app/Settings.h"
#include "core/delivery/SceneInstaller.h"
#include "core/music/HistoryStore.h"
#include "NginxServer.h"
#include "ScenePackages.h"
#include "TestSupport.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QThread>
#include <gtest/gtest.h>
#include <filesystem>
#include <map>

using namespace std::chrono_literals;
using namespace testsupport;

namespace {

// One scene package as the server offers it, and what it unpacks to.
struct Offer {
    SceneCatalog::Entry entry;
    QByteArray package, catalog;
    QString etag;
    std::map<QString, QByteArray> files;
};

// What the writer has acknowledged, and what it had begun but not acknowledged when killed.
struct Expected {
    std::map<QString, qint64> settings;
    QStringList albums;  // oldest first
    std::optional<int> installed;
    struct {
        std::optional<std::pair<QString, qint64>> setting;
        std::optional<QString> album;
        std::optional<int> install;
    } pending;
};

constexpr int stackLimit = 4;

// Each write path, with the writer's lines that begin and end it.
struct Path {
    QString kind, from, to;
};
const std::vector<Path> paths{
    {"settings", "begin settings", "ack settings"}, {"history", "begin history", "ack history"},
    {"catalog", "begin catalog", "begin download"}, {"download", "begin download", "begin verify"},
    {"install", "begin verify", "ack install"},  // hashing, unpacking and the swap
};

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
            std::filesystem::last_write_time((scenes + "/manifest").toStdString(),
                                             std::filesystem::file_time_type::clock::now() - i * 24h);
            o.package = readFile(scenes + "/apt.zip");
            o.catalog = readFile(scenes + "/manifest");
            // nginx's tag: modification time and length in hexadecimal.
            const QFileInfo info(scenes + "/manifest");
            o.etag =
                QStringLiteral("\"%1-%2\"").arg(info.lastModified().toSecsSinceEpoch(), 0, 16).arg(info.size(), 0, 16);
            o.files = filesUnder(temp.filePath("work/src/scene%1").arg(i));
        }
        QDir().mkpath(root());
        Settings(root() + "/settings.json").setStackLimit(stackLimit);
    }

    std::optional<int> offerWith(const QString &sha256) const
    {
        for (int i = 0; i < 2; ++i)
            if (offers[i].entry.sha256 == sha256) return i;
        return std::nullopt;
    }

    std::unique_ptr<QProcess> startWriter(int firstRound, bool once = false)
    {
        auto p = std::make_unique<QProcess>();
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_STATE_HOME", temp.filePath("logs"));
        p->setProcessEnvironment(env);
        p->setProgram(STATE_WRITER);
        QStringList args{root(), QString::number(firstRound)};
        for (int i = 0; i < 2; ++i) args << server.baseURL() + QString::number(i) + "/";
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
            e.pending.setting = {w[2], w[3].toLongLong()};
        } else if (what == "ack" && kind == "settings") {
            e.settings[w[2]] = w[3].toLongLong();
            e.pending.setting.reset();
        } else if (kind == "history") {
            if (what == "ack") e.albums.append("Album " + w[2]);
            e.pending.album = what == "begin" ? std::optional<QString>("Album " + w[2]) : std::nullopt;
        } else if (what == "begin" && kind == "catalog") {
            e.pending.install = round % 2;
        } else if (what == "ack" && kind == "install") {
            e.installed = w[2].toInt();
            e.pending.install.reset();
        }
    }

    // The state as the next start finds it, checked against what was acknowledged; what a write
    // that was under way when the process died left behind becomes the expectation from then on.
    void verify(Expected &e, const QString &when)
    {
        SCOPED_TRACE(when.toStdString());
        Settings settings(root() + "/settings.json");
        EXPECT_EQ(settings.stackLimit(), stackLimit);
        // A key new to the file must hold the pending value; a known one holds its old value or that.
        if (const auto &p = e.pending.setting;
            p && settings.contains(p->first) &&
            (!e.settings.count(p->first) || settings.value(p->first).toLongLong() == p->second))
            e.settings[p->first] = p->second;
        for (const auto &[key, value] : e.settings)
            EXPECT_EQ(settings.value(key).toLongLong(), value) << key.toStdString();

        {
            HistoryStore history(settings, root() + "/history");
            QStringList found;
            for (const HistoryStore::Entry &entry : history.entries()) {
                found.prepend(entry.album);
                EXPECT_FALSE(QImage(history.dir() + "/" + entry.file).isNull()) << entry.album.toStdString();
            }
            const auto top = [](const QStringList &l) { return l.mid(std::max<qsizetype>(0, l.size() - stackLimit)); };
            QStringList withPending = e.albums;
            if (e.pending.album) withPending.append(*e.pending.album);
            if (found == top(withPending)) e.albums = withPending;
            EXPECT_EQ(found, top(e.albums));
        }

        SceneInstaller::Options options;
        options.root = support();
        options.schedule = [](std::chrono::seconds, std::function<void()>) {};
        SceneInstaller installer(settings, options);  // recovers what an install left half done
        EXPECT_TRUE(QDir(support()).entryList({"*.incoming", "*.old"}, QDir::AllEntries | QDir::Hidden).isEmpty());
        const QJsonObject record = QJsonDocument::fromJson(readFile(support() + "/Scenes/.installed.json")).object();
        const std::optional<int> installed = offerWith(record.value("sha256").toString());
        EXPECT_EQ(installer.hasInstalledScene(), installed.has_value());
        if (installed && installed == e.pending.install) e.installed = installed;
        EXPECT_EQ(installed, e.installed);
        if (installed) {
            auto found = filesUnder(support() + "/Scenes");
            found.erase(".installed.json");
            EXPECT_EQ(found, offers[*installed].files);
        }

        // The catalog cache is a whole catalog, and a tag names the one it holds.
        const QString cache = support() + "/Downloads/catalog.json";
        const auto tag = settings.sceneCatalogETag();
        if (QFileInfo::exists(cache)) {
            const QByteArray bytes = readFile(cache);
            const int which = bytes == offers[0].catalog ? 0 : bytes == offers[1].catalog ? 1 : -1;
            EXPECT_NE(which, -1) << bytes.left(200).toStdString();
            if (tag && which >= 0) {
                EXPECT_EQ(*tag, offers[which].etag);
            }
        } else {
            EXPECT_FALSE(tag.has_value());
        }
        // A partial download is a prefix of the package its record names.
        for (const QString &name : QDir(support() + "/Downloads").entryList({"*.part.json"})) {
            const QJsonObject record = QJsonDocument::fromJson(readFile(support() + "/Downloads/" + name)).object();
            const std::optional<int> which = offerWith(record.value("sha256").toString());
            ASSERT_TRUE(which) << name.toStdString();
            EXPECT_TRUE(offers[*which].package.startsWith(readFile(support() + "/Downloads/" + name.chopped(5))))
                << "partial file differs from the package";
        }
        e.pending = {};  // the writer is gone: nothing of it is under way any more
    }
};

}  // namespace

TEST_F(CrashStateTest, AHundredKillsInEveryWritePathLoseNothingAcknowledged)
{
    Expected expected;
    // How long each path took when not killed (ms): a kill falls at a random moment of such a span,
    // so that it lands inside the path as often as not.
    std::map<QString, std::vector<double>> windowMs;
    QRandomGenerator random(20261123);
    int round = 0;

    for (int run = 0; run < 100 * int(paths.size()); ++run) {
        const QString target = paths[run % paths.size()].kind;
        const std::unique_ptr<QProcess> writer = startWriter(run * 1000);
        ASSERT_TRUE(writer->waitForStarted(10000));
        QElapsedTimer clock;
        clock.start();
        std::map<QString, qint64> began;
        std::optional<qint64> killAt;
        QByteArray pending;
        while (!killAt) {
            ASSERT_LT(clock.elapsed(), 120000) << "no " << target.toStdString() << " write in two minutes";
            ASSERT_TRUE(writer->waitForReadyRead(100) || writer->state() != QProcess::NotRunning)
                << "the writer stopped by itself";
            pending += writer->readAllStandardOutput();
            for (qsizetype nl; (nl = pending.indexOf('\n')) >= 0;) {
                const QString line = QString::fromUtf8(pending.left(nl));
                pending.remove(0, nl + 1);
                follow(line, expected, round);
                ASSERT_FALSE(line.startsWith("failed")) << line.toStdString();
                const QString head = line.section(' ', 0, 1);
                const qint64 now = clock.nsecsElapsed();
                for (const Path &p : paths) {
                    if (head == p.to && began.count(p.kind))
                        windowMs[p.kind].push_back(double(now - began[p.kind]) / 1e6);
                    if (head != p.from) continue;
                    began[p.kind] = now;
                    if (!killAt && p.kind == target) {
                        const std::vector<double> &seen = windowMs[target];
                        const double span = seen.empty() ? 1.0 : seen[random.bounded(int(seen.size()))];
                        killAt = now + qint64(random.bounded(span) * 1e6);
                    }
                }
            }
        }
        // Sleeps to the moment rather than polling, for paths shorter than a millisecond.
        if (const qint64 left = *killAt - clock.nsecsElapsed(); left > 0) QThread::usleep(quint64(left / 1000));
        ::kill(pid_t(writer->processId()), SIGKILL);
        writer->waitForFinished(10000);
        for (const QByteArray &l : (pending + writer->readAllStandardOutput()).split('\n'))
            if (!l.isEmpty()) follow(QString::fromUtf8(l), expected, round);
        verify(expected, QStringLiteral("after kill %1 (%2)").arg(run + 1).arg(target));
        if (HasFailure()) return;
    }

    // After all that the writer still gets its work done.
    const std::unique_ptr<QProcess> writer = startWriter(100000, true);
    ASSERT_TRUE(writer->waitForFinished(60000));
    const QString out = QString::fromUtf8(writer->readAllStandardOutput());
    for (const QString &line : out.split('\n', Qt::SkipEmptyParts)) follow(line, expected, round);
    EXPECT_TRUE(out.contains("ack install")) << out.toStdString();
    verify(expected, "after a run to the end");
}
