#include "core/app/AppIdentity.h"
#include "core/app/Settings.h"
#include "TestSupport.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QLockFile>
#include <QSignalSpy>
#include <gtest/gtest.h>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

// The user's settings folder of this process, set before QSettings first reads it.
const QString kConfigHome = [] {
    static QTemporaryDir dir;
    qputenv("XDG_CONFIG_HOME", dir.path().toUtf8());
    return dir.path();
}();

struct SettingsTest : ::testing::Test {
    QTemporaryDir dir;
    QString path() const { return dir.filePath("turnelo.json"); }
};

}  // namespace

TEST_F(SettingsTest, WrongTypesAndRangesFallBack)
{
    Settings s(path());
    // Only a real Boolean counts: text or a number leaves the default on.
    for (const auto &[key, value] : std::initializer_list<std::pair<const char *, QVariant>>{{"steam", "no"},
                                                                                             {"fxPanel", 0},
                                                                                             {"fxRecord", false},
                                                                                             {"showTurntable", "false"},
                                                                                             {"ecoMode", 0},
                                                                                             {"perfLogInterval", "60"},
                                                                                             {"stackLimit", 0},
                                                                                             {"fps", 5},
                                                                                             {"ecoTrigger", "whenever"},
                                                                                             {"screens", "everything"}})
        s.setValue(key, value);
    EXPECT_TRUE(s.steam());
    EXPECT_TRUE(s.fxPanel());
    EXPECT_FALSE(s.fxRecord());
    EXPECT_TRUE(s.showTurntable());
    EXPECT_TRUE(s.ecoMode());
    EXPECT_EQ(s.perfLogInterval(), 300.0);
    EXPECT_EQ(s.stackLimit(), 1);
    EXPECT_EQ(s.fps(), 15);
    EXPECT_EQ(s.ecoTrigger(), Settings::EcoTrigger::battery);
    EXPECT_FALSE(s.allScreens());

    for (const auto &[key, value] : std::initializer_list<std::pair<const char *, QVariant>>{
             {"perfLogInterval", 60}, {"stackLimit", -4}, {"fps", 120}, {"ecoTrigger", "lowPower"}})
        s.setValue(key, value);
    EXPECT_EQ(s.perfLogInterval(), 60.0);
    EXPECT_EQ(s.stackLimit(), 1);
    EXPECT_EQ(s.fps(), 60);
    EXPECT_EQ(s.ecoTrigger(), Settings::EcoTrigger::lowPower);
    s.setAllScreens(true);
    EXPECT_TRUE(s.allScreens());
}

TEST_F(SettingsTest, ValueTypesSurviveARestart)
{
    {
        Settings s(path());
        s.setValue("flag", true);
        s.setValue("count", 7);
        s.setValue("whole", 6.0);  // integral double must come back as a double
        s.setValue("ratio", 0.25);
        s.setValue("name", "noite");
        s.setDesktopSnapshot(QVariantMap{{"CreateDesktop", true}, {"zoom", 2.0}, {"n", 3}});
    }
    // Another process reads the file afresh: the types must come from the file itself.
    const auto typeOf = [&](const char *key) {
        return runTool(builtTool("turnelo-defaults"), {"--file", path(), "read-type", key}).out.trimmed();
    };
    for (const auto &[key, type] : {std::pair{"flag", "boolean"},
                                    {"count", "integer"},
                                    {"whole", "float"},
                                    {"ratio", "float"},
                                    {"name", "string"},
                                    {"desktopSnapshot", "dictionary"}})
        EXPECT_EQ(typeOf(key), QByteArray("Type is ") + type) << key;
    const auto read = runTool(builtTool("turnelo-defaults"), {"--file", path(), "read", "desktopSnapshot"});
    EXPECT_EQ(read.out.trimmed(), R"({"CreateDesktop":true,"n":3,"zoom":{"$real":2}})");

    Settings s(path());
    EXPECT_EQ(s.value("whole").toDouble(), 6.0);
    ASSERT_TRUE(s.desktopSnapshot().has_value());
    s.setDesktopSnapshot(std::nullopt);
    EXPECT_FALSE(s.contains("desktopSnapshot"));
}

TEST_F(SettingsTest, ADamagedFileOrAnOwnerlessLockDoesNotStopTheNextStart)
{
    LogTail log;
    const QByteArray damaged = R"({"framing": "mid", "fps": 45, "stackLimit": 1)";
    writeFile(path(), damaged);
    {
        Settings s(path());
        EXPECT_EQ(s.framing(), "mid");
        EXPECT_EQ(s.fps(), 45);
        EXPECT_EQ(readFile(path() + ".bad"), damaged) << "the damaged file is kept aside";
        EXPECT_TRUE(log.messages().contains("Estado: turnelo.json danificado (JSON ilegível no byte 45); lido até o "
                                            "último item completo, cópia em turnelo.json.bad"))
            << log.messages().join('\n').toStdString();
        s.setStackLimit(3);
    }
    EXPECT_EQ(runTool(builtTool("turnelo-defaults"), {"--file", path(), "read", "framing"}).out.trimmed(), "\"mid\"");

    // A lock file that a killed process left empty goes at start; one a live process holds stays.
    writeFile(path() + ".lock", {});
    {
        Settings s(path());
        EXPECT_FALSE(QFileInfo::exists(path() + ".lock"));
        s.setFraming("wide");
    }
    QLockFile held(path() + ".lock");
    ASSERT_TRUE(held.tryLock(0));
    Settings s(path());
    EXPECT_TRUE(QFileInfo::exists(path() + ".lock"));
    EXPECT_EQ(s.framing(), "wide");
}

TEST_F(SettingsTest, RealChangesSignalFromThisOrAnotherProcess)
{
    Settings s(path());
    QSignalSpy steam(&s, &Settings::steamChanged);
    QSignalSpy framing(&s, &Settings::framingChanged);
    s.setEffect("steam", false);
    s.setEffect("steam", false);
    s.setFraming("wide");
    EXPECT_EQ(steam.count(), 1);
    EXPECT_EQ(framing.count(), 1);

    QSignalSpy preset(&s, &Settings::lightPresetChanged);
    const auto tool = builtTool("turnelo-defaults");
    const auto r = runTool(tool, {"--file", path(), "write", "lightPreset", "-string", "noite"});
    ASSERT_EQ(r.exitCode, 0) << r.err.constData();
    EXPECT_TRUE(waitUntil([&] { return preset.count() > 0; }, 5s));
    EXPECT_EQ(s.lightPreset(), "noite");

    const auto typed = runTool(tool, {"--file", path(), "write", "fps", "-int", "45"});
    ASSERT_EQ(typed.exitCode, 0);
    const auto type = runTool(tool, {"--file", path(), "read-type", "fps"});
    EXPECT_EQ(type.out.trimmed(), "Type is integer");
    const auto bad = runTool(tool, {"--file", path(), "write", "fps", "-int", "fast"});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_FALSE(bad.err.isEmpty());
}

TEST(SettingsFlavour, DevelopmentAndReleaseBuildsKeepSeparateFilesAndTheToolFollowsItsBuild)
{
    EXPECT_EQ(Settings::userFilePath(true), kConfigHome + "/quelt/turnelo.json");
    EXPECT_EQ(Settings::userFilePath(false), kConfigHome + "/quelt/turnelo-dev.json");
    const QString own = Settings::userFilePath(AppIdentity::isRelease());
    EXPECT_EQ(Settings().filePath(), own);

    // turnelo-defaults without --file writes where the app of its build reads.
    const auto r =
        runTool(builtTool("turnelo-defaults"), {"write", "fps", "-int", "24"}, {"XDG_CONFIG_HOME=" + kConfigHome});
    ASSERT_EQ(r.exitCode, 0) << r.err.constData();
    EXPECT_EQ(Settings(own).fps(), 24);
    EXPECT_FALSE(QFileInfo::exists(Settings::userFilePath(!AppIdentity::isRelease())));
}

TEST_F(SettingsTest, ALinkAtThePathIsReplacedNotWrittenThroughAndAFailedWriteIsLogged)
{
    LogTail log;
    const QByteArray theirs = R"({"framing": "wide", "fps": 45})";
    writeFile(dir.filePath("elsewhere.json"), theirs);
    ASSERT_TRUE(QFile::link(dir.filePath("elsewhere.json"), path()));
    {
        Settings s(path());
        EXPECT_EQ(s.framing(), "wide");
        s.setFraming("mid");
        s.setStackLimit(3);
    }
    EXPECT_EQ(readFile(dir.filePath("elsewhere.json")), theirs) << "the link's target is untouched";
    EXPECT_FALSE(QFileInfo(path()).isSymLink());
    const QJsonObject saved = QJsonDocument::fromJson(readFile(path())).object();
    EXPECT_EQ(saved.value("framing"), "mid");
    EXPECT_EQ(saved.value("fps"), 45) << "what the settings held is kept";
    EXPECT_EQ(saved.value("stackLimit"), 3);
    EXPECT_EQ(log.messages().filter("era um link").size(), 1) << log.messages().join('\n').toStdString();

    // A folder where the file should be: each change that cannot be written says so.
    const QString folder = dir.filePath("folder.json");
    ASSERT_TRUE(QDir().mkpath(folder));
    Settings s(folder);
    s.setFraming("wide");
    s.setStackLimit(2);
    EXPECT_EQ(log.messages().filter(QRegularExpression("^Ajustes: não foi possível gravar .*folder.json")).size(), 2)
        << log.messages().join('\n').toStdString();
    EXPECT_TRUE(QFileInfo(folder).isDir());
}
