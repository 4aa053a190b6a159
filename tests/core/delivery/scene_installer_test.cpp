#include "LoopbackHttp.h"
#include "NginxServer.h"
#include "ScenePackages.h"
#include "TestSupport.h"
#include "core/delivery/PackageDownload.h"
#include "core/scene/PlatesWatcher.h"
#include "core/delivery/SceneInstaller.h"
#include "core/scene/SceneLocation.h"
#include "core/delivery/SceneUnpacker.h"
#include "core/app/Settings.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

using namespace std::chrono_literals;
using namespace scenepackages;
using testsupport::readFile;
using testsupport::waitUntil;
using Phase = SceneInstaller::Phase;

namespace {

// Support folder, log and settings of this process live in a private folder, set before first use.
const std::string kHome = [] {
    char pattern[] = "/tmp/turnelo-installer-test-XXXXXX";
    const std::string dir = mkdtemp(pattern);
    setenv("XDG_DATA_HOME", (dir + "/data").c_str(), 1);
    setenv("XDG_STATE_HOME", (dir + "/state").c_str(), 1);
    setenv("XDG_CONFIG_HOME", (dir + "/config").c_str(), 1);
    unsetenv("TURNELO_SCENES_DIR");
    return dir;
}();

class SceneInstallerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start());
        settings = std::make_unique<Settings>(tmp.path() + "/settings.json");
        settings->setValue("contentServiceURL", server.baseURL());
    }
    void TearDown() override
    {
        installer.reset();
        std::filesystem::remove_all(kHome + "/data");
    }

    SceneInstaller &make(QString rootPath = {}, std::function<qint64(const QString &)> freeSpace = {})
    {
        SceneInstaller::Options o;
        o.root = rootPath.isEmpty() ? root() : rootPath;
        o.schedule = [this](std::chrono::seconds delay, std::function<void()> then) {
            scheduled.push_back({delay, std::move(then)});
        };
        o.freeSpace = std::move(freeSpace);
        o.shippedRoom = shipped;
        installer = std::make_unique<SceneInstaller>(*settings, o);
        installer->onInstalled = [this] { ++installedCalls; };
        return *installer;
    }
    void syncAndWait()
    {
        installer->sync();
        ASSERT_TRUE(waitUntil([&] { return !installer->running(); }, 60s));
    }
    void fireRetry()
    {
        ASSERT_FALSE(scheduled.empty());
        auto then = scheduled.back().second;
        then();
        ASSERT_TRUE(waitUntil([&] { return !installer->running(); }, 60s));
    }
    QString root() const { return tmp.path() + "/support"; }
    QString scenes() const { return root() + "/Scenes"; }
    QString newLog() const { return logTail.lines().join('\n'); }

    SceneCatalog::Entry publishBase(const QString &file, const QString &scenario, qint64 plateBytes, quint32 seed = 1)
    {
        return publishScene(server.scenesDir(), tmp.path(), file, scenario, plateBytes, seed);
    }
    void serve(const QList<SceneCatalog::Entry> &entries) { writeCatalog(server.scenesDir(), entries); }

    // Kills the server once the download of the running sync has reached half its size.
    void cutHalfway()
    {
        bool cut = false;
        auto connection = QObject::connect(installer.get(), &SceneInstaller::phaseChanged, [&] {
            const Phase &p = installer->phase();
            if (!cut && p.kind == Phase::downloading && p.total > 0 && p.received >= p.total / 2) {
                cut = true;
                server.stop();
            }
        });
        syncAndWait();
        QObject::disconnect(connection);
        ASSERT_TRUE(cut);
    }
    QStringList packageLines(const QString &file) const { return server.accessLinesFor("/v1/scenes/" + file); }

    NginxServer server{QStringLiteral("1m")};
    QTemporaryDir tmp;
    std::unique_ptr<Settings> settings;
    std::unique_ptr<SceneInstaller> installer;
    std::vector<std::pair<std::chrono::seconds, std::function<void()>>> scheduled;
    int installedCalls = 0;
    testsupport::LogTail logTail;
    std::optional<QString> shipped;
};

TEST_F(SceneInstallerTest, FirstSyncInstallsAndReloadsSecondCostsOneNotModified)
{
    const auto v1 = publishBase("apt-1.zip", "first", 200000);
    serve({v1});
    make(SceneLocation::supportDirectory());
    int settled = 0;
    PlatesWatcher watcher([&] { ++settled; }, 300);
    syncAndWait();

    EXPECT_EQ(installer->phase().kind, Phase::ready);
    EXPECT_EQ(installer->sceneTitle(), QStringLiteral("Apartment first"));
    EXPECT_EQ(installedCalls, 1);
    EXPECT_TRUE(waitUntil([&] { return settled == 1; }, 10s));
    const auto resolved = SceneLocation::resolve();
    ASSERT_TRUE(resolved);
    EXPECT_EQ(resolved->root, SceneLocation::installedRoot());
    EXPECT_EQ(readFile(resolved->root + "/wide/light/sun_noon.exr"), randomBytes(200000, 1));

    // The tag goes only with a cached catalog that reads; the 304 is answered from it, and the
    // installed record tells that the package offered is already in place.
    syncAndWait();
    EXPECT_TRUE(installer->lastRunError().isEmpty()) << installer->lastRunError().toStdString();
    EXPECT_EQ(installedCalls, 1);
    const QStringList catalogLines = server.accessLinesFor("/v1/scenes/manifest");
    ASSERT_EQ(catalogLines.size(), 2);
    EXPECT_EQ(NginxServer::statusOf(catalogLines[0]), "200");
    EXPECT_EQ(NginxServer::statusOf(catalogLines[1]), "304");
    EXPECT_EQ(packageLines("apt-1.zip").size(), 1);
}

// Whether a 200 to the ranged request restarts the file is FileDownloadTest's: a whole answer replaces it.
TEST_F(SceneInstallerTest, DroppedDownloadResumesWithARangeIfTheFileIsUnchanged)
{
    const auto entry = publishBase("slow-apt.zip", "resumed", 3 << 20);
    serve({entry});
    make();
    cutHalfway();

    EXPECT_EQ(installer->phase().kind, Phase::failed);
    EXPECT_EQ(installer->phase().message, QString::fromUtf8(SceneInstaller::kFailedText));
    ASSERT_EQ(scheduled.size(), 1u);
    const QString part = root() + "/Downloads/slow-apt.zip.part";
    const qint64 kept = QFileInfo(part).size();
    ASSERT_TRUE(kept > 0 && kept < entry.size) << kept;

    ASSERT_TRUE(server.start());
    fireRetry();
    const QString last = packageLines("slow-apt.zip").last();
    EXPECT_EQ(NginxServer::statusOf(last), "206") << last.toStdString();
    EXPECT_TRUE(last.contains(QStringLiteral("range=\"bytes=%1-\"").arg(kept))) << last.toStdString();
    // The entity tag recorded beside the part goes as If-Range; a 206 says it still matched.
    EXPECT_TRUE(last.contains("ifrange=\"\\x22")) << last.toStdString();
    EXPECT_EQ(readFile(scenes() + "/wide/light/sun_noon.exr"), randomBytes(3 << 20, 1));
    EXPECT_FALSE(QFileInfo::exists(part) || QFileInfo::exists(part + ".json"));
}

TEST_F(SceneInstallerTest, PackageChangedOnServerRestartsFromZero)
{
    // No entity tag: the ranged request carries no If-Range, so a shorter file yields 416.
    const auto entry = publishBase("noetag-apt.zip", "changed", 3 << 20);
    serve({entry});
    make();
    cutHalfway();
    const QString served = server.scenesDir() + "/noetag-apt.zip";
    const QByteArray whole = readFile(served);
    const qint64 quarter = whole.size() / 4;
    put(served, whole.left(quarter));  // the publisher is still copying it
    ASSERT_TRUE(server.start());
    fireRetry();
    EXPECT_EQ(installer->notice(), QString::fromUtf8(PackageDownload::kChangedOnServerText));
    ASSERT_EQ(scheduled.size(), 2u);  // the short file was not taken for the package
    const QStringList lines = packageLines("noetag-apt.zip");
    // The cut request is never logged: nginx was killed before it ended.
    ASSERT_GE(lines.size(), 2) << lines.join("\n").toStdString();
    EXPECT_EQ(NginxServer::statusOf(lines[lines.size() - 2]), "416");
    EXPECT_EQ(NginxServer::statusOf(lines.last()), "200");
    EXPECT_TRUE(lines.last().contains("range=\"-\"") || lines.last().contains("range=\"\""));

    put(served, whole);  // upload finished
    fireRetry();
    EXPECT_EQ(installer->phase().kind, Phase::ready);
    EXPECT_EQ(NginxServer::statusOf(packageLines("noetag-apt.zip").last()), "206");
    EXPECT_EQ(readFile(scenes() + "/wide/light/sun_noon.exr"), randomBytes(3 << 20, 1));
    EXPECT_TRUE(installer->notice().isEmpty());
}

// Corrupt, hostile or broken packages: each run fails, the package is deleted, the installed room
// stays on screen with no error shown, and the next try waits longer.
TEST_F(SceneInstallerTest, BadPackagesAreRefusedAndDeletedWhileTheRoomStaysAndRetriesBackOff)
{
    serve({publishBase("apt-1.zip", "kept", 50000)});
    make();
    syncAndWait();
    ASSERT_EQ(scenarioAt(scenes()), QStringLiteral("kept"));
    const QString outside = tmp.path() + "/outside";
    QDir().mkpath(outside);
    const QByteArray manifest = manifestJson("evil");
    makeSceneFolder(tmp.path() + "/whole", "evil", 1000);
    const std::vector<ZipEntry> whole = entriesOf(tmp.path() + "/whole");
    const auto plus = [&](std::vector<ZipEntry> entries, const ZipEntry &more) {
        entries.push_back(more);
        return entries;
    };
    auto corrupt = publishBase("apt-2.zip", "corrupt", 50000, 3);
    corrupt.sha256 = QString(64, QLatin1Char('0'));

    struct Case {
        SceneCatalog::Entry entry;
        const char *logged;
    };
    const auto zip = [&](const char *file, const std::vector<ZipEntry> &entries) {
        return scenepackages::publishZip(server.scenesDir(), file, entries, file);
    };
    const std::vector<Case> cases = {
        {corrupt, "Cenas: falhou: SHA-256 não confere em apt-2.zip"},
        {zip("nomanifest.zip", {{"wide/light/sun_noon.exr", "x"}}), "Cenas: falhou: pacote sem manifest.json"},
        {zip("dotdot.zip", {{"manifest.json", manifest}, {"../escape.txt", "x"}}), "\"..\" no caminho"},
        {zip("deep-dotdot.zip", {{"manifest.json", manifest}, {"wide/../../escape.txt", "x"}}), "\"..\" no caminho"},
        {zip("absolute.zip", {{"manifest.json", manifest}, {outside + "/abs.txt", "x"}}), "caminho absoluto"},
        {zip("link-out.zip", {{"manifest.json", manifest}, {"wide/out", {}, outside}}), "link para fora da pasta"},
        {zip("link-up.zip", {{"manifest.json", manifest}, {"wide/up", {}, "../../outside"}}),
         "link para fora da pasta"},
        {zip("link-through-link.zip", {{"manifest.json", manifest}, {"here", {}, "."}, {"up", {}, "here/.."}}),
         "link para fora da pasta"},
        {zip("write-through-link.zip",
             {{"manifest.json", manifest}, {"inner", {}, "wide"}, {"wide/x", "x"}, {"inner/y", "y"}}),
         "descompactação falhou"},
        {zip("junk-manifest.zip", plus({whole.begin() + 1, whole.end()}, {"manifest.json", "{junk"})),
         "manifest.json inválido"},
        {zip("no-plates.zip", {{"manifest.json", manifest}}), "enquadramento completo"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.entry.file.toStdString());
        logTail = testsupport::LogTail();
        serve({c.entry});
        syncAndWait();
        EXPECT_EQ(installer->phase().kind, Phase::ready);
        EXPECT_EQ(scenarioAt(scenes()), QStringLiteral("kept"));
        EXPECT_TRUE(newLog().contains(QString::fromUtf8(c.logged))) << newLog().toStdString();
        EXPECT_TRUE(QDir(outside).isEmpty());
        EXPECT_FALSE(QFileInfo::exists(tmp.path() + "/escape.txt") || QFileInfo::exists(root() + "/escape.txt"));
        EXPECT_FALSE(QFileInfo::exists(root() + "/Scenes.incoming"));
        EXPECT_FALSE(QFileInfo::exists(root() + "/Downloads/" + c.entry.file + ".part"));
    }

    // A deflate bomb that claims its size honestly still claims too much for its package: refused
    // before a byte of it is fetched, let alone unpacked.
    const QString bombZip = server.scenesDir() + "/bomb.zip";
    const auto bombEntries = plus(whole, {"wide/filler.exr", QByteArray(64 << 20, '\0')});
    ASSERT_TRUE(writeZip(bombZip, bombEntries, false));
    SceneCatalog::Entry bomb = entryFor(bombZip, "bomb", "bomb");
    bomb.unpackedSize = 0;
    for (const ZipEntry &e : bombEntries) *bomb.unpackedSize += e.data.size();
    serve({bomb});
    syncAndWait();
    EXPECT_EQ(scenarioAt(scenes()), QStringLiteral("kept"));
    EXPECT_TRUE(packageLines("bomb.zip").isEmpty());
    EXPECT_TRUE(installer->lastRunError().contains("bomb.zip")) << installer->lastRunError().toStdString();

    // Doubling from two minutes, up to an hour.
    ASSERT_EQ(scheduled.size(), cases.size() + 1);
    const std::chrono::seconds delays[] = {120s, 240s, 480s, 960s, 1920s, 3600s};
    for (size_t i = 0; i < scheduled.size(); ++i) EXPECT_EQ(scheduled[i].first, delays[std::min<size_t>(i, 5)]) << i;
    EXPECT_EQ(installer->attempts(), int(scheduled.size()));

    // The retry runs again; a stale one does nothing once a newer run has started and scheduled its
    // own (a run sets its phase at once).
    serve({publishBase("apt-3.zip", "third", 50000, 4)});
    auto stale = scheduled[1].second;
    fireRetry();
    EXPECT_EQ(scenarioAt(scenes()), QStringLiteral("third"));
    EXPECT_EQ(installer->attempts(), 0);
    stale();
    EXPECT_EQ(installer->phase().kind, Phase::ready) << "the stale retry started a run";
}

TEST_F(SceneInstallerTest, UnpackerKeepsInnerLinksAndEnforcesItsBounds)
{
    const QString zip = tmp.path() + "/inner.zip", into = tmp.path() + "/into";
    ASSERT_TRUE(writeZip(zip, {{"manifest.json", "{}"},
                               {"wide/light/sun_noon.exr", QByteArray(1000, 's')},
                               {"wide/sun-alias.exr", {}, "light/sun_noon.exr"}}));
    QDir().mkpath(into);
    EXPECT_EQ(SceneUnpacker::unpack(zip, into, 1002), 1002);
    EXPECT_EQ(QFileInfo(into + "/wide/sun-alias.exr").symLinkTarget(),
              QFileInfo(into + "/wide/light/sun_noon.exr").canonicalFilePath());
    // Unpacks into an emptied folder: the refusal's text, or empty.
    const auto refusal = [&](const QString &archive, qint64 maxBytes, int maxEntries = 10) {
        QDir(into).removeRecursively();
        QDir().mkpath(into);
        try {
            SceneUnpacker::unpack(archive, into, maxBytes, maxEntries);
        } catch (const DeliveryError &e) {
            return QString::fromUtf8(e.what());
        }
        return QString();
    };
    // One path twice, however it is spelled; more entries than allowed.
    ASSERT_TRUE(writeZip(tmp.path() + "/twice.zip", {{"wide/x", "1"}, {"./wide//x", "2"}}));
    EXPECT_TRUE(refusal(tmp.path() + "/twice.zip", 1 << 20).contains("wide/x"));
    EXPECT_TRUE(refusal(zip, 1 << 20, 3).isEmpty());
    EXPECT_FALSE(refusal(zip, 1 << 20, 2).isEmpty());

    // A claim below what the archive really holds: refused once passed, with no more than the
    // claim written.
    const QString bomb = tmp.path() + "/bomb.zip";
    ASSERT_TRUE(writeZip(bomb, {{"a", randomBytes(1 << 20, 3)}, {"b", QByteArray(8 << 20, '\0')}}, false));
    SceneCatalog::Entry claimed = entryFor(bomb, "bomb", "bomb");
    claimed.unpackedSize = 2 << 20;
    EXPECT_FALSE(refusal(bomb, SceneUnpacker::limitFor(claimed)).isEmpty());
    EXPECT_LE(QFileInfo(into + "/a").size() + QFileInfo(into + "/b").size(), *claimed.unpackedSize);
    // Claims the package size cannot account for: more than 30 times it, past 2 GiB, or nothing.
    const auto limit = [&](qint64 size, std::optional<qint64> claim) {
        claimed.size = size;
        claimed.unpackedSize = claim;
        return SceneUnpacker::limitFor(claimed);
    };
    const qint64 size = claimed.size, gib = qint64(1) << 30;
    for (const auto &[packed, claim] : {std::pair{size, size * 30 + 1}, {size, qint64(0)}, {gib, 3 * gib}})
        EXPECT_THROW(limit(packed, claim), DeliveryError) << claim;
    EXPECT_EQ(limit(gib, std::nullopt), 2 * gib);
}

TEST_F(SceneInstallerTest, WithoutAnInstalledSceneFailuresShowTheirText)
{
    // Nothing for this version: said once, never retried.
    auto future = publishBase("apt-9.zip", "future", 1000);
    future.minAppVersion = QStringLiteral("99.0");
    serve({future});
    make({}, [](const QString &) { return qint64(1000000); });
    syncAndWait();
    EXPECT_EQ(installer->phase(), (Phase{Phase::failed, 0, 0, QString::fromUtf8(SceneInstaller::kNoSceneText)}));
    EXPECT_TRUE(scheduled.empty());
    EXPECT_TRUE(packageLines("apt-9.zip").isEmpty());

    // A precondition that keeps failing: started over once, then given up with the user's text.
    serve({publishBase("refused-apt.zip", "refused", 1000)});
    syncAndWait();
    EXPECT_EQ(installer->phase().message, QString::fromUtf8(PackageDownload::kChangedOnServerText));
    EXPECT_EQ(packageLines("refused-apt.zip").size(), 2);

    // Too little disk space stops before any request: the package plus its unpacked estimate
    // (the package size again), less what is free, is the amount to free.
    const auto big = publishBase("apt-1.zip", "big", 3000000);
    serve({big});
    syncAndWait();
    EXPECT_EQ(installer->phase().message,
              "Not enough disk space for the room. Free up " + PackageDownload::formatBytes(2 * big.size - 1000000));
    EXPECT_TRUE(packageLines("apt-1.zip").isEmpty());
    ASSERT_EQ(scheduled.size(), 2u);
    // The amount is written in the user's locale, rounded up: freeing the amount shown is always enough.
    const QLocale saved;
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    for (const auto &[bytes, shown] : {std::pair{2410000000LL, "2,5 GB"}, {340500000LL, "341 MB"}})
        EXPECT_EQ(PackageDownload::formatBytes(bytes), QString::fromUtf8(shown)) << bytes;
    QLocale::setDefault(saved);

    // With the room that ships on screen, a service that does not answer is logged and retried on
    // the same back-off, but is nothing the user has to read.
    shipped = tmp.filePath("shipped");
    testsupport::writeFile(*shipped + "/manifest.json", testsupport::minimalManifest());
    scheduled.clear();
    make({}, [](const QString &) { return qint64(1000000); });
    server.stop();
    syncAndWait();
    EXPECT_EQ(installer->phase().kind, Phase::ready);
    EXPECT_FALSE(installer->hasInstalledScene());
    EXPECT_TRUE(installer->hasRoom());
    EXPECT_FALSE(installer->lastRunError().isEmpty());
    ASSERT_EQ(scheduled.size(), 1u);
    EXPECT_EQ(scheduled.back().first, 120s);
}

TEST_F(SceneInstallerTest, FramingsInstallBesideTheBaseAndFailAlone)
{
    const auto base = publishBase("apt-1.zip", "base", 10000);
    const auto framing = [&](const char *name, const char *file, const std::vector<ZipEntry> &entries) {
        SceneCatalog::Entry e = scenepackages::publishZip(server.scenesDir(), file, entries, file);
        e.framing = name;
        e.base = false;
        return e;
    };
    const auto close1 =
        framing("close", "close-1.zip", {{"close/light/a.exr", "A"}, {"__MACOSX/close/light/._a.exr", "junk"}});
    const auto close2 = framing("close", "close-2.zip", {{"close/light/b.exr", "B"}});
    const auto top =
        framing("top", "top.zip", {{"__MACOSX/._wrap", "junk"}, {".DS_Store", "junk"}, {"wrap/top/light/t.exr", "T"}});
    const auto mid = framing("mid", "mid.zip", {{"elsewhere/light/m.exr", "M"}});
    serve({base, close1, top, close2, mid});
    make();
    syncAndWait();
    ASSERT_EQ(installer->phase().kind, Phase::ready);
    EXPECT_EQ(installer->downloadable(), (QSet<QString>{"close", "top", "mid"}));
    EXPECT_EQ(installer->framingSizes().value("close"), close1.size + close2.size);
    ASSERT_EQ(installer->framingEntries().value("close").size(), 2);

    for (const QString &name : {QStringLiteral("close"), QStringLiteral("top"), QStringLiteral("mid")}) {
        installer->installFraming(installer->framingEntries().value(name), name);
        ASSERT_TRUE(waitUntil([&] { return !installer->framingRunning(); }, 30s));
    }
    for (const auto &[file, data] :
         {std::pair{"/close/light/a.exr", "A"}, {"/close/light/b.exr", "B"}, {"/top/light/t.exr", "T"}})
        EXPECT_EQ(readFile(scenes() + file), data) << file;
    for (const char *absent : {"/mid", "/__MACOSX"}) EXPECT_FALSE(QFileInfo::exists(scenes() + absent)) << absent;
    EXPECT_EQ(installer->framingFailed(), QSet<QString>{"mid"});
    EXPECT_EQ(installer->downloadable(), QSet<QString>{"mid"});
    EXPECT_FALSE(installer->framingDownload().has_value());
    EXPECT_EQ(scenarioAt(scenes()), QStringLiteral("base"));
    for (const char *left : {"/Framing.incoming", "/Framing.old"})
        EXPECT_FALSE(QFileInfo::exists(root() + left)) << left;
    EXPECT_TRUE(scheduled.empty());  // framing failures are the tile's business, not retried

    // A name that would lead out of "Scenes" is refused as such, before any download.
    installer->installFraming(installer->framingEntries().value("mid"), "../mid");
    ASSERT_TRUE(waitUntil([&] { return !installer->framingRunning(); }, 30s));
    EXPECT_TRUE(installer->framingFailed().contains("../mid"));
    EXPECT_TRUE(newLog().contains("enquadramento inválido: ../mid")) << newLog().toStdString();
    EXPECT_FALSE(QFileInfo::exists(root() + "/mid"));
}

// Servers that send too much, send without end, or a byte at a time: each attempt
// ends quickly as a failed one, to be retried as usual, having taken in little.
TEST(SceneInstallerServers, HostileAnswersFailTheAttemptQuicklyHavingReadLittle)
{
    LoopbackHttp server;
    QTemporaryDir tmp;
    Settings settings(tmp.path() + "/settings.json");
    const QByteArray package = randomBytes(100000, 5);
    put(tmp.path() + "/apt.zip", package);
    const SceneCatalog::Entry entry = entryFor(tmp.path() + "/apt.zip", "apt", "apt");
    const QByteArray catalog = SceneCatalog{1, {entry}}.serialize();
    LoopbackHttp::Reply catalogAnswer, packageAnswer;
    server.answer = [&](const QString &target) { return target.endsWith("/manifest") ? catalogAnswer : packageAnswer; };

    SceneInstaller::Options o;
    o.root = tmp.path() + "/support";
    o.baseURL = server.url("/");
    o.schedule = [](std::chrono::seconds, std::function<void()>) {};
    // Only the times are shortened; the catalog keeps its real cap.
    for (TransferLimits *limits : {&o.limits.catalog, &o.limits.package}) {
        limits->idleMs = 2000;
        limits->deadlineMs = 5000;
        limits->minBytes = 64;
        limits->rateWindowMs = 300;
    }
    SceneInstaller installer(settings, o);
    const QString part = o.root + "/Downloads/apt.zip.part";

    constexpr qint64 kEndless = -1, kNoLength = -1, k200MB = 200'000'000;
    struct Case {
        const char *what;
        LoopbackHttp::Reply catalog, package;
        const char *number;  // the limit crossed or the status, in the run's error
        bool partGone = false;
    };
    const LoopbackHttp::Reply goodCatalog{catalog};
    const std::vector<Case> cases = {
        {"catalog without end", {"{", 200, 0, kEndless, 64 << 10, 0, kNoLength}, {}, "8388608"},
        {"package error page of 200 MB", goodCatalog, {"<html>", 500, 0, k200MB, 64 << 10}, "500"},
        {"package with 200 MB more than its size", goodCatalog, {package, 200, 0, k200MB, 64 << 10}, "100000", true},
        {"the same, unannounced", goodCatalog, {package, 200, 0, kEndless, 64 << 10, 0, kNoLength}, "100000", true},
        {"package a byte at a time", goodCatalog, {"x", 200, 0, entry.size - 1, 1, 100}, "0.3"},
    };
    int attempts = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        catalogAnswer = c.catalog;
        packageAnswer = c.package;
        server.sent = 0;
        installer.sync();
        ASSERT_TRUE(waitUntil([&] { return !installer.running(); }, 5s));
        EXPECT_TRUE(installer.lastRunError().contains(c.number)) << installer.lastRunError().toStdString();
        EXPECT_EQ(installer.attempts(), ++attempts);
        EXPECT_LT(server.sent, 16 << 20);
        EXPECT_FALSE(c.partGone && QFileInfo::exists(part));
    }
}

TEST(SceneInstallerRecovery, PutsBackAWholeSceneFromEveryInterruptedState)
{
    QTemporaryDir tmp;
    const QString root = tmp.path();
    const auto scene = [&](const QString &dir, const QString &scenario, bool withRecord) {
        put(root + "/" + dir + "/manifest.json", manifestJson(scenario));
        if (withRecord) put(root + "/" + dir + "/.installed.json", "{}");
    };
    // Recovers, then names the scenario that "Scenes" holds, or a leftover that stayed.
    const auto recovered = [&]() -> std::optional<QString> {
        SceneInstaller::recover(root);
        for (const char *left : {"/Scenes.incoming", "/Scenes.old", "/Framing.incoming", "/Framing.old"})
            if (QFileInfo::exists(root + left)) return QStringLiteral("leftover ") + left;
        return scenarioAt(root + "/Scenes");
    };

    // Killed while unpacking: the staging folder is incomplete, the old scene is in place.
    scene("Scenes", "old", true);
    put(root + "/Scenes.incoming/wide/light/half.exr", "partial");
    EXPECT_EQ(recovered(), QStringLiteral("old"));

    // Killed between the two renames: the complete new scene wins, one that lacked its record does not.
    for (const auto &[newRecorded, wins] : {std::pair{true, "new"}, {false, "old"}}) {
        QDir(root + "/Scenes").removeRecursively();
        scene("Scenes.old", "old", true);
        scene("Scenes.incoming", "new", newRecorded);
        EXPECT_EQ(recovered(), QString::fromUtf8(wins)) << newRecorded;
    }

    // Killed while swapping a framing: the replaced framing folder goes back.
    put(root + "/Framing.old/close/light/a.exr", "A");
    put(root + "/Framing.incoming/close/light/b.exr", "B");
    EXPECT_EQ(recovered(), QStringLiteral("old"));
    EXPECT_EQ(readFile(root + "/Scenes/close/light/a.exr"), "A");
}

}  // namespace
