#include "core/app/Log.h"
#include "core/scene/PlatesWatcher.h"
#include "core/scene/SceneLocation.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <gtest/gtest.h>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

// One data and state folder for the whole process: both paths are computed once.
struct Environment : ::testing::Environment {
    QTemporaryDir home;
    void SetUp() override
    {
        qputenv("XDG_DATA_HOME", home.filePath("data").toUtf8());
        qputenv("XDG_STATE_HOME", home.filePath("state").toUtf8());
        qunsetenv("TURNELO_SCENES_DIR");
        qputenv("XDG_DATA_DIRS", home.filePath("nowhere").toUtf8());
    }
};
Environment *env = static_cast<Environment *>(::testing::AddGlobalTestEnvironment(new Environment));

QByteArray logText() { return readFile(Log::path()); }

// Modification dates far apart, so no file system's date resolution can hide a change.
void setModified(const QString &path, int secondsAhead)
{
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::ReadWrite));
    ASSERT_TRUE(f.setFileTime(QDateTime::currentDateTime().addSecs(secondsAhead), QFileDevice::FileModificationTime));
}

// The root SceneLocation::resolve() picks, or "none".
QString resolvedRoot()
{
    const auto resolved = SceneLocation::resolve();
    return resolved ? resolved->root : QStringLiteral("none");
}

struct PlatesWatcherTest : ::testing::Test {
    // Writes a manifest into `root` and watches it; a change settles after `debounceMs` of quiet.
    void watch(int debounceMs)
    {
        writeFile(manifest, minimalManifest());
        watcher.emplace(root.path(), count, debounceMs);
    }
    QTemporaryDir root;
    const QString manifest = root.filePath("manifest.json");
    int calls = 0;  // the reloads announced
    const std::function<void()> count = [this] { ++calls; };
    std::optional<PlatesWatcher> watcher;
};

}  // namespace

TEST(SceneLocation, FoldersAndDevelopmentRoot)
{
    EXPECT_EQ(SceneLocation::supportDirectory(), env->home.filePath("data") + "/Turnelo Dev");
    EXPECT_EQ(SceneLocation::installedRoot(), env->home.filePath("data") + "/Turnelo Dev/Scenes");
    const auto roots = [] {
        QStringList list;
        for (const auto &c : SceneLocation::candidates()) list << c.root;
        return list;
    };
    EXPECT_EQ(roots(),
              QStringList({SceneLocation::installedRoot(), env->home.filePath("nowhere/turnelo/scenes/room")}));
    {
        ScopedEnv dev("TURNELO_SCENES_DIR", "~/scenes/room");
        EXPECT_EQ(*SceneLocation::development(), QDir::homePath() + "/scenes/room");
        EXPECT_EQ(roots(), QStringList({QDir::homePath() + "/scenes/room", SceneLocation::installedRoot()}))
            << "a development folder stands in for the room that ships";
    }
    {
        // Relative entries are not data folders; the defaults stand in for an empty list.
        ScopedEnv dirs("XDG_DATA_DIRS", "share:/opt/a/");
        EXPECT_EQ(SceneLocation::bundled(), QStringList{"/opt/a/turnelo/scenes/room"});
        ScopedEnv none("XDG_DATA_DIRS", "");
        EXPECT_EQ(SceneLocation::bundled(),
                  QStringList({"/usr/local/share/turnelo/scenes/room", "/usr/share/turnelo/scenes/room"}));
    }
    EXPECT_FALSE(SceneLocation::development().has_value());
}

TEST(SceneLocation, ResolvePrefersAValidDevelopmentSceneAndLogsInvalidOnes)
{
    const QString installed = SceneLocation::installedRoot();
    writeFile(installed + "/manifest.json", minimalManifest());
    QTemporaryDir dev;
    ScopedEnv var("TURNELO_SCENES_DIR", dev.path().toUtf8());

    // No manifest in the development folder: silently falls through.
    EXPECT_FALSE(SceneLocation::usesDevelopmentScenes());
    EXPECT_EQ(resolvedRoot(), installed);

    writeFile(dev.filePath("manifest.json"), "{\"contract\": \"1\"}");
    EXPECT_EQ(resolvedRoot(), installed);
    EXPECT_TRUE(logText().contains("Cena: manifest inválido em " + dev.path().toUtf8() +
                                   ": contract: esperava inteiro, achei texto\n"));

    writeFile(dev.filePath("manifest.json"), minimalManifest());
    EXPECT_TRUE(SceneLocation::usesDevelopmentScenes());
    EXPECT_EQ(resolvedRoot(), dev.path());

    // The room that ships comes last, and not at all beside a development folder; the installed
    // one wins over it, and it is read where it lies.
    QTemporaryDir system, local;
    ScopedEnv dirs("XDG_DATA_DIRS", (local.path() + ":" + system.path()).toUtf8());
    const QString shipped = system.filePath("turnelo/scenes/room");
    writeFile(shipped + "/manifest.json", minimalManifest());
    EXPECT_EQ(SceneLocation::resolve()->origin, SceneLocation::Origin::development);
    EXPECT_FALSE(SceneLocation::bundledRoom().has_value());
    ScopedEnv noDev("TURNELO_SCENES_DIR", QByteArray());
    qunsetenv("TURNELO_SCENES_DIR");
    EXPECT_EQ(SceneLocation::resolve()->origin, SceneLocation::Origin::installed);
    QFile::remove(installed + "/manifest.json");
    ASSERT_EQ(resolvedRoot(), shipped);
    EXPECT_EQ(SceneLocation::resolve()->origin, SceneLocation::Origin::bundled);
    EXPECT_EQ(SceneLocation::bundledRoom(), shipped);

    QFile::remove(shipped + "/manifest.json");
    EXPECT_EQ(resolvedRoot(), "none");
    EXPECT_FALSE(SceneLocation::bundledRoom().has_value());
}

// The quiet interval is shortened so the test takes seconds; the logic is the same.
TEST_F(PlatesWatcherTest, BurstOfWritesSettlesOnce)
{
    watch(400);
    spin(50ms);
    for (int i = 0; i < 6; ++i) {
        writeFile(manifest, minimalManifest() + QByteArray(i + 1, ' '));
        setModified(manifest, i + 1);
        spin(150ms);
        EXPECT_EQ(calls, 0) << "fired before the writes went quiet";
    }
    EXPECT_TRUE(waitUntil([&] { return calls == 1; }, 3s));
    spin(800ms);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(logText().contains("Manifest novo: recarregando a cena"));

    // A new file in the folder, without a new manifest date, is no change.
    writeFile(root.filePath("light/room.exr"), "x");
    spin(700ms);
    EXPECT_EQ(calls, 1);
}

TEST_F(PlatesWatcherTest, AtomicReplacementsAreNoticedEachTime)
{
    watch(200);
    for (int round = 1; round <= 2; ++round) {
        const QString incoming = root.filePath("incoming.json");
        writeFile(incoming, minimalManifest());
        setModified(incoming, 10 * round);
        ASSERT_EQ(::rename(QFile::encodeName(incoming).constData(), QFile::encodeName(manifest).constData()), 0);
        EXPECT_TRUE(waitUntil([&] { return calls == round; }, 3s)) << "round " << round;
    }
    // A manifest that disappears counts as a change too; so does its return.
    QFile::remove(manifest);
    EXPECT_TRUE(waitUntil([&] { return calls == 3; }, 3s));
    writeFile(manifest, minimalManifest());
    EXPECT_TRUE(waitUntil([&] { return calls == 4; }, 3s));

    watcher->stop();
    writeFile(manifest, "{}");
    setModified(manifest, 99);
    spin(500ms);
    EXPECT_EQ(calls, 4);
}

// The installer's swap: the new scene comes in beside the old one and two renames exchange them.
TEST_F(PlatesWatcherTest, RootSwappedByRenamesIsNoticedEveryTimeFromTheFirstInstall)
{
    const QString scenes = root.filePath("Scenes"), incoming = scenes + ".incoming", old = scenes + ".old";
    PlatesWatcher watcher(scenes, count, 200);
    for (int round = 1; round <= 3; ++round) {
        writeFile(incoming + "/manifest.json", minimalManifest());
        setModified(incoming + "/manifest.json", 10 * round);
        QDir(old).removeRecursively();
        ASSERT_TRUE(!QFileInfo::exists(scenes) || QDir().rename(scenes, old));
        ASSERT_TRUE(QDir().rename(incoming, scenes));
        EXPECT_TRUE(waitUntil([&] { return calls == round; }, 3s)) << "install " << round;
    }
}
