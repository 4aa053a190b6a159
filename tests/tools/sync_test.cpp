#include "NginxServer.h"
#include "ScenePackages.h"
#include "TestSupport.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace scenepackages;
using namespace testsupport;

namespace {

// The exit status is the tool's answer to "is the offered scene installed now?": a failed run
// must say so even when an older scene stays installed and the installer shows it as ready. Why
// each kind of run fails is the installer's own tests' business.
TEST(TurneloSync, ExitsZeroOnlyWhenTheOfferedSceneIsInstalled)
{
    QTemporaryDir tmp;
    NginxServer server;
    ASSERT_TRUE(server.start());
    const QString root = tmp.path() + "/support";
    const auto sync = [&] {
        return runTool(builtTool("turnelo-sync"),
                       {"--root", root, "--url", server.baseURL(), "--settings", tmp.path() + "/settings.json"},
                       {"XDG_STATE_HOME=" + tmp.path() + "/state", "XDG_DATA_HOME=" + tmp.path() + "/data"});
    };

    writeCatalog(server.scenesDir(), {publishScene(server.scenesDir(), tmp.path(), "apt-1.zip", "first", 20000)});
    ToolResult r = sync();
    EXPECT_EQ(r.exitCode, 0) << r.err.constData();
    EXPECT_TRUE(r.out.trimmed().endsWith("ready")) << r.out.constData();
    EXPECT_EQ(scenarioAt(root + "/Scenes"), QStringLiteral("first"));
    r = sync();  // already current
    EXPECT_EQ(r.exitCode, 0) << r.err.constData();

    auto corrupt = publishScene(server.scenesDir(), tmp.path(), "apt-2.zip", "second", 20000, 2);
    corrupt.sha256 = QString(64, QLatin1Char('0'));
    writeCatalog(server.scenesDir(), {corrupt});
    r = sync();
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_FALSE(r.out.contains("ready")) << r.out.constData();
    EXPECT_TRUE(QString::fromUtf8(r.err).contains("SHA-256 não confere em apt-2.zip")) << r.err.constData();
    EXPECT_EQ(scenarioAt(root + "/Scenes"), QStringLiteral("first"));
}

}  // namespace
