#include "NginxServer.h"
#include "ScenePackages.h"
#include "TestSupport.h"
#include "core/delivery/SceneInstaller.h"
#include "core/app/Settings.h"

#include <QDirIterator>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace std::chrono_literals;
using namespace scenepackages;
using namespace testsupport;

namespace {

ToolResult publish(const QStringList &args) { return runTool(builtTool("turnelo-publish"), args); }

QStringList leftovers(const QString &dir)
{
    QStringList out;
    QDirIterator it(dir, {"*.tmp"}, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) out.append(it.next());
    return out;
}

TEST(TurneloPublish, RelativePathsGivePackagesThatTheInstallerInstallsWhole)
{
    QTemporaryDir tmp;
    const ScopedEnv state("XDG_STATE_HOME", (tmp.path() + "/state").toUtf8());
    auto r = runTool(builtTool("turnelo-gen-scene"),
                     {"--out", tmp.path() + "/generated", "--width", "96", "--height", "54"});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    put(tmp.path() + "/close/light/sun.exr", randomBytes(5000, 4));

    // Typed from the folder that holds the scenes.
    NginxServer server;
    const QString previous = QDir::currentPath();
    QDir::setCurrent(tmp.path());
    r = publish({"--out", QDir(tmp.path()).relativeFilePath(server.docRoot()), "--base", "generated", "--framing",
                 "close=close", "--id", "apt", "--title", "Apartment", "--scene", "apt", "--min-app-version", "0.1"});
    QDir::setCurrent(previous);
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(leftovers(server.docRoot()).isEmpty());

    const SceneCatalog catalog = SceneCatalog::parse(readFile(server.scenesDir() + "/manifest"));
    ASSERT_EQ(catalog.scenes.size(), 2);
    // Sizes and digests are checked by the installer below, which installs both packages.
    for (const SceneCatalog::Entry &e : catalog.scenes)
        EXPECT_TRUE(e.file.contains(e.sha256.left(12))) << e.file.toStdString();
    const auto source = entriesOf(tmp.path() + "/generated");
    ASSERT_GT(source.size(), 10u);
    qint64 sourceBytes = 0;
    for (const ZipEntry &e : source) sourceBytes += e.data.size();
    // The installer bounds unpacking by this claim: missing or high, it would loosen that bound.
    EXPECT_EQ(catalog.scenes[0].unpackedSize, sourceBytes);

    ASSERT_TRUE(server.start());
    Settings settings(tmp.path() + "/settings.json");
    settings.setValue("contentServiceURL", server.baseURL());
    SceneInstaller::Options options;
    options.root = tmp.path() + "/support";
    options.schedule = [](std::chrono::seconds, std::function<void()>) { FAIL() << "unexpected retry"; };
    SceneInstaller installer(settings, options);
    installer.sync();
    ASSERT_TRUE(waitUntil([&] { return !installer.running(); }, 30s));
    ASSERT_EQ(installer.phase().kind, SceneInstaller::Phase::ready);
    const QString installed = options.root + "/Scenes";
    for (const ZipEntry &e : source) EXPECT_EQ(readFile(installed + "/" + e.name), e.data) << e.name.toStdString();

    installer.installFraming(installer.framingEntries().value("close"), "close");
    ASSERT_TRUE(waitUntil([&] { return !installer.framingRunning(); }, 30s));
    EXPECT_EQ(readFile(installed + "/close/light/sun.exr"), randomBytes(5000, 4));
    EXPECT_TRUE(installer.downloadable().isEmpty());
}

TEST(TurneloPublish, FailedRunsLeaveNoPartialFiles)
{
    QTemporaryDir tmp;
    const QString scene = tmp.path() + "/scene", out = tmp.path() + "/out", scenes = out + "/v1/scenes";
    const auto fails = [&](const QStringList &more, const char *why) {
        const auto r = publish(QStringList{"--out", out, "--base", scene} + more);
        EXPECT_EQ(r.exitCode, 1);
        EXPECT_TRUE(r.err.contains(why)) << r.err.toStdString();
    };
    put(scene + "/wide/light/sun.exr", "x");
    fails({}, "no manifest.json");
    put(scene + "/manifest.json", R"({"contract":"1"})");
    fails({}, "invalid manifest.json");
    EXPECT_FALSE(QFileInfo::exists(scenes + "/manifest"));

    put(scene + "/manifest.json", manifestJson("ok"));
    const auto r = publish({"--out", out, "--base", scene, "--id", "first"});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    const QByteArray catalog = readFile(scenes + "/manifest");

    // A framing that fails after its base was packed takes the new base package back with it.
    QDir().mkpath(tmp.path() + "/empty");
    fails({"--id", "second", "--framing", "close=" + tmp.path() + "/empty"}, "nothing to package");
    EXPECT_TRUE(QDir(scenes).entryList({"second*"}).isEmpty()) << QDir(scenes).entryList().join(' ').toStdString();
    EXPECT_TRUE(leftovers(out).isEmpty()) << leftovers(out).join(' ').toStdString();
    EXPECT_EQ(readFile(scenes + "/manifest"), catalog);
}

}  // namespace
