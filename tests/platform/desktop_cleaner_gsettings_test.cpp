#include "core/environment/DesktopCleaner.h"
#include "core/app/Log.h"
#include "core/environment/ProcessLauncher.h"
#include "core/app/Settings.h"
#include "platform/linux/GSettingsDesktopPreferences.h"
#include "platform/linux/LinuxDesktopPreferences.h"
#include "TestSupport.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <gtest/gtest.h>

using namespace testsupport;

namespace {

// The Desktop Icons NG keys the cleaner changes, as the extension's schema declares them.
const QByteArray dingSchema = R"(<schemalist>
  <schema id="org.gnome.shell.extensions.ding" path="/org/gnome/shell/extensions/ding/">
    <key type="b" name="show-home"><default>true</default></key>
    <key type="b" name="show-trash"><default>true</default></key>
    <key type="b" name="show-volumes"><default>true</default></key>
    <key type="b" name="show-network-volumes"><default>false</default></key>
  </schema>
</schemalist>
)";

struct RecordingLauncher : ProcessLauncher {
    QStringList commands;
    std::optional<QString> run(const QString &program, const QStringList &arguments) override
    {
        commands.append((QStringList{program} + arguments).join(' '));
        return std::nullopt;
    }
};

// Real gsettings on its key-file back end, with the extension's schema installed per user the
// way GNOME Shell extensions keep theirs.
struct DesktopCleanerGSettingsTest : ::testing::Test {
    static void SetUpTestSuite()
    {
        static QTemporaryDir state;
        qputenv("XDG_STATE_HOME", state.path().toUtf8());
    }

    QTemporaryDir home;
    ScopedEnv backend{"GSETTINGS_BACKEND", "keyfile"};
    ScopedEnv config{"XDG_CONFIG_HOME", home.filePath("config").toUtf8()};
    ScopedEnv data{"XDG_DATA_HOME", home.filePath("data").toUtf8()};
    QString schemas = home.filePath("data/gnome-shell/extensions/ding@rastersoft.com/schemas");
    Settings settings{home.filePath("turnelo.json")};
    RecordingLauncher launcher;

    void SetUp() override
    {
        writeFile(schemas + "/org.gnome.shell.extensions.ding.gschema.xml", dingSchema);
        const auto compiled = runTool("glib-compile-schemas", {schemas});
        ASSERT_EQ(compiled.exitCode, 0) << compiled.err.toStdString();
    }

    QString get(const QString &key)
    {
        return QString::fromUtf8(
                   runTool("gsettings", {"--schemadir", schemas, "get", GSettingsDesktopPreferences::schema, key}).out)
            .trimmed();
    }
    void set(const QString &key, const QString &value)
    {
        runTool("gsettings", {"--schemadir", schemas, "set", GSettingsDesktopPreferences::schema, key, value});
    }

    static QString lastLogLine()
    {
        const auto lines = QString::fromUtf8(readFile(Log::path())).split('\n', Qt::SkipEmptyParts);
        return lines.isEmpty() ? QString() : lines.last();
    }
};

}  // namespace

TEST_F(DesktopCleanerGSettingsTest, HidesTheExtensionsIconsAndPutsTheUsersChoiceBack)
{
    // The per-user schema is found without a system-wide install.
    auto prefs = linuxDesktopPreferences("ubuntu:GNOME");
    ASSERT_NE(prefs, nullptr);
    set("show-trash", "false");
    DesktopCleaner cleaner(settings, std::move(prefs), launcher);
    cleaner.reload();
    EXPECT_FALSE(cleaner.current().hideIcons);
    EXPECT_TRUE(cleaner.supports(DesktopPreferences::Control::hideIcons));
    EXPECT_FALSE(cleaner.supports(DesktopPreferences::Control::clickOnlyInStageManager));

    cleaner.apply({true, false, false});
    EXPECT_EQ(get("show-home"), "false");
    EXPECT_EQ(get("show-trash"), "false");
    EXPECT_EQ(get("show-volumes"), "false");
    EXPECT_EQ(get("show-network-volumes"), "false");
    EXPECT_TRUE(cleaner.current().hideIcons);
    // The extension follows its settings live: nothing to restart.
    EXPECT_TRUE(launcher.commands.isEmpty());
    EXPECT_TRUE(lastLogLine().endsWith("(gravou [\"org.gnome.shell.extensions.ding\"]; nada a reiniciar)"))
        << lastLogLine().toStdString();

    cleaner.restore();
    EXPECT_TRUE(lastLogLine().endsWith("Mesa limpa: restaurado (gravou [\"org.gnome.shell.extensions.ding\"]; nada a reiniciar)"))
        << lastLogLine().toStdString();
    EXPECT_EQ(get("show-home"), "true");
    EXPECT_EQ(get("show-trash"), "false");
    EXPECT_EQ(get("show-volumes"), "true");
    EXPECT_FALSE(cleaner.current().hideIcons);
    EXPECT_FALSE(settings.desktopSnapshot().has_value());

    // Showing icons shows all three, the trash too; once so, nothing is written again (the
    // key file would be rewritten even for an equal value).
    cleaner.apply({false, false, false});
    EXPECT_EQ(get("show-trash"), "true");
    const QString keyfile = home.filePath("config/glib-2.0/settings/keyfile");
    const QDateTime before = QFileInfo(keyfile).lastModified();
    cleaner.apply({false, false, false});
    EXPECT_EQ(QFileInfo(keyfile).lastModified(), before);
    EXPECT_TRUE(lastLogLine().endsWith("(gravou []; nada a reiniciar)"));
}

TEST_F(DesktopCleanerGSettingsTest, NoBackEndWithoutTheExtensionsSchema)
{
    QDir(schemas).removeRecursively();
    EXPECT_EQ(linuxDesktopPreferences("GNOME"), nullptr);
}
