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

TEST(SceneLocation, FoldersAndTheRoomThatShipsWithoutDataFolders)
{
    EXPECT_EQ(SceneLocation::supportDirectory(), env->home.filePath("data") + "/Turnelo Dev");
    EXPECT_EQ(SceneLocation::installedRoot(), env->home.filePath("data") + "/Turnelo Dev/Scenes");
    // A session that names no data folders still finds the room the package installed.
    ScopedEnv none("XDG_DATA_DIRS", "");
    EXPECT_EQ(SceneLocation::bundled(),
              QStringList({"/usr/local/share/turnelo/scenes/room", "/usr/share/turnelo/scenes/room"}));
}

TEST(SceneLocation, ResolvePrefersAValidDevelopmentSceneAndTheRoomThatShipsComesLast)
{
    const QString installed = SceneLocation::installedRoot();
    writeFile(installed + "/manifest.json", minimalManifest());
    QTemporaryDir dev;
    ScopedEnv var("TURNELO_SCENES_DIR", dev.path().toUtf8());

    // No manifest in the development folder: silently falls through.
    EXPECT_FALSE(SceneLocation::usesDevelopmentScenes());
    EXPECT_EQ(resolvedRoot(), installed);

    writeFile(dev.filePath("manifest.json"), "{\"contract\": \"1\"}");
    EXPECT_EQ(resolvedRoot(), installed) << "an invalid development scene";

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
