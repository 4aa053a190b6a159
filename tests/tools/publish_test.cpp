#include "NginxServer.h"
#include "ScenePackages.h"
#include "TestSupport.h"
#include "core/delivery/SceneInstaller.h"
#include "core/app/Settings.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace std::chrono_literals;
using namespace scenepackages;
using testsupport::builtTool;
using testsupport::readFile;
using testsupport::runTool;

namespace {

TEST(TurneloPublish, PackagesThatTheInstallerInstallsFromAPlainWebServer)
{
    QTemporaryDir tmp;
    qputenv("XDG_STATE_HOME", (tmp.path() + "/state").toUtf8());
    const QString base = tmp.path() + "/base", close = tmp.path() + "/close";
    makeSceneFolder(base, "published", 300000);
    put(close + "/light/sun.exr", randomBytes(5000, 4));

    NginxServer server;
    const auto r = runTool(builtTool("turnelo-publish"),
                           {"--out", server.docRoot(), "--base", base, "--framing", "close=" + close, "--id", "apt",
                            "--title", "Apartment", "--scene", "apt", "--min-app-version", "0.1"});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();

    const SceneCatalog catalog = SceneCatalog::parse(readFile(server.scenesDir() + "/manifest"));
    ASSERT_EQ(catalog.scenes.size(), 2);
    for (const SceneCatalog::Entry &e : catalog.scenes) {
        const QString file = server.scenesDir() + "/" + e.file;
        EXPECT_EQ(e.size, QFileInfo(file).size());
        EXPECT_EQ(e.sha256, sha256File(file));
        EXPECT_TRUE(e.file.contains(e.sha256.left(12)));
    }
    const SceneCatalog::Entry &b = catalog.scenes[0];
    EXPECT_TRUE(b.isBase());
    EXPECT_EQ(b.title, "Apartment");
    EXPECT_EQ(b.unpackedSize, 300000 + 64 + manifestJson("published").size());
    EXPECT_EQ(catalog.framings(b, "0.1.0").keys(), QStringList{"close"});
    EXPECT_EQ(catalog.pick("0.1.0"), b);

    ASSERT_TRUE(server.start());
    Settings settings(tmp.path() + "/settings.json");
    settings.setValue("contentServiceURL", server.baseURL());
    SceneInstaller::Options options;
    options.root = tmp.path() + "/support";
    options.schedule = [](std::chrono::seconds, std::function<void()>) { FAIL() << "unexpected retry"; };
    SceneInstaller installer(settings, options);
    installer.sync();
    ASSERT_TRUE(testsupport::waitUntil([&] { return !installer.running(); }, 30s));
    EXPECT_EQ(readFile(options.root + "/Scenes/manifest.json"), manifestJson("published"));
    installer.installFraming(installer.framingEntries().value("close"), "close");
    ASSERT_TRUE(testsupport::waitUntil([&] { return !installer.framingRunning(); }, 30s));
    EXPECT_EQ(readFile(options.root + "/Scenes/close/light/sun.exr"), randomBytes(5000, 4));
    EXPECT_TRUE(installer.downloadable().isEmpty());
}

TEST(TurneloPublish, GeneratedSceneArrivesWholeAndValid)
{
    QTemporaryDir tmp;
    qputenv("XDG_STATE_HOME", (tmp.path() + "/state").toUtf8());
    const QString scene = tmp.path() + "/generated";
    auto r = runTool(builtTool("turnelo-gen-scene"), {"--out", scene, "--width", "96", "--height", "54"});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    NginxServer server;
    r = runTool(builtTool("turnelo-publish"), {"--out", server.docRoot(), "--base", scene, "--id", "generated"});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    ASSERT_TRUE(server.start());

    Settings settings(tmp.path() + "/settings.json");
    settings.setValue("contentServiceURL", server.baseURL());
    SceneInstaller::Options options;
    options.root = tmp.path() + "/support";
    options.schedule = [](std::chrono::seconds, std::function<void()>) { FAIL() << "unexpected retry"; };
    SceneInstaller installer(settings, options);
    installer.sync();
    ASSERT_TRUE(testsupport::waitUntil([&] { return !installer.running(); }, 30s));
    ASSERT_EQ(installer.phase().kind, SceneInstaller::Phase::ready);

    const QString installed = options.root + "/Scenes";
    const auto source = entriesOf(scene);
    ASSERT_GT(source.size(), 10u);
    for (const ZipEntry &e : source)
        EXPECT_EQ(readFile(installed + "/" + e.name), e.data) << e.name.toStdString();
    r = runTool(builtTool("turnelo-scene"), {"validate", installed});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains("\"missing\":[]")) << r.out.toStdString();
}

TEST(TurneloPublish, RefusesAFolderWithoutAValidManifest)
{
    QTemporaryDir tmp;
    put(tmp.path() + "/scene/wide/light/sun.exr", "x");
    auto r = runTool(builtTool("turnelo-publish"), {"--out", tmp.path() + "/out", "--base", tmp.path() + "/scene"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains("no manifest.json"));
    put(tmp.path() + "/scene/manifest.json", R"({"contract":"1"})");
    r = runTool(builtTool("turnelo-publish"), {"--out", tmp.path() + "/out", "--base", tmp.path() + "/scene"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains("invalid manifest.json"));
    EXPECT_FALSE(QFileInfo::exists(tmp.path() + "/out/v1/scenes/manifest"));
}

}  // namespace
