#include "core/app/AppIdentity.h"
#include "core/app/Settings.h"
#include "TestSupport.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
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
    // turnelo-defaults on this file: another process reading and writing it.
    ToolResult defaults(const QStringList &args) const
    {
        return runTool(builtTool("turnelo-defaults"), QStringList{"--file", path()} + args);
    }
};

void setAll(Settings &s, const QVariantMap &values)
{
    for (auto it = values.cbegin(); it != values.cend(); ++it) s.setValue(it.key(), it.value());
}

}  // namespace

TEST_F(SettingsTest, WrongTypesAndRangesFallBack)
{
    Settings s(path());
    // Only a real Boolean counts: text or a number leaves the default on.
    setAll(s, {{"steam", "no"}, {"fxPanel", 0}, {"fxRecord", false}, {"showTurntable", "false"}, {"ecoMode", 0}});
    setAll(s, {{"perfLogInterval", "60"}, {"stackLimit", 0}, {"fps", 5}, {"ecoTrigger", "whenever"}});
    s.setValue("screens", "everything");
    EXPECT_EQ((std::array{s.steam(), s.fxPanel(), s.fxRecord(), s.showTurntable(), s.ecoMode(), s.allScreens()}),
              (std::array{true, true, false, true, true, false}));
    EXPECT_EQ(std::tuple(s.perfLogInterval(), s.stackLimit(), s.fps()), std::tuple(300.0, 1, 15));
    EXPECT_EQ(s.ecoTrigger(), Settings::EcoTrigger::battery);

    // Integer keys also take text that reads as an integer.
    setAll(s, {{"perfLogInterval", 60}, {"stackLimit", "9"}, {"fps", 120}, {"ecoTrigger", "lowPower"}});
    EXPECT_EQ(std::tuple(s.perfLogInterval(), s.stackLimit(), s.fps()), std::tuple(60.0, 9, 60));
    EXPECT_EQ(s.ecoTrigger(), Settings::EcoTrigger::lowPower);
    s.setAllScreens(true);
    EXPECT_TRUE(s.allScreens());
}

TEST_F(SettingsTest, ValueTypesSurviveARestart)
{
    {
        Settings s(path());
        // "whole", an integral double, must come back as a double.
        setAll(s, {{"flag", true}, {"count", 7}, {"whole", 6.0}, {"ratio", 0.25}, {"name", "noite"}});
        s.setDesktopSnapshot(QVariantMap{{"CreateDesktop", true}, {"zoom", 2.0}, {"n", 3}});
    }
    // Another process reads the file afresh: the types must come from the file itself.
    QByteArray types;
    for (const char *key : {"flag", "count", "whole", "ratio", "name", "desktopSnapshot"})
        types += defaults({"read-type", key}).out;
    EXPECT_EQ(types,
              "Type is boolean\nType is integer\nType is float\nType is float\nType is string\nType is dictionary\n");
    EXPECT_EQ(defaults({"read", "desktopSnapshot"}).out.trimmed(),
              R"({"CreateDesktop":true,"n":3,"zoom":{"$real":2}})");

    Settings s(path());
    EXPECT_EQ(s.value("whole").typeId(), QMetaType::Double);
    ASSERT_TRUE(s.desktopSnapshot().has_value());
    s.setDesktopSnapshot(std::nullopt);
    EXPECT_FALSE(s.contains("desktopSnapshot"));
}

TEST_F(SettingsTest, ADamagedFileOrAnOwnerlessLockDoesNotStopTheNextStart)
{
    // A comma and an open bracket inside a string end nothing.
    const QByteArray damaged = R"({"framing": "mid", "weatherCity": "Paris, [France", "fps": 45, "stackLimit": 1)";
    writeFile(path(), damaged);
    {
        Settings s(path());
        EXPECT_EQ(s.fps(), 45);
        EXPECT_EQ(readFile(path() + ".bad"), damaged) << "the damaged file is kept aside";
        s.setStackLimit(3);
    }
    EXPECT_EQ(defaults({"read", "framing"}).out.trimmed(), "\"mid\"");

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
    const auto r = defaults({"write", "lightPreset", "-string", "noite"});
    ASSERT_EQ(r.exitCode, 0) << r.err.constData();
    EXPECT_TRUE(waitUntil([&] { return preset.count() > 0; }, 5s));
    EXPECT_EQ(s.lightPreset(), "noite");

    const auto bad = defaults({"write", "fps", "-int", "fast"});
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

TEST_F(SettingsTest, ALinkAtThePathIsReplacedNotWrittenThrough)
{
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
    // What the settings held ("fps") is kept beside the changes.
    EXPECT_EQ(QJsonDocument::fromJson(readFile(path())).object(),
              (QJsonObject{{"framing", "mid"}, {"fps", 45}, {"stackLimit", 3}}));
}
