// The desktop cleaner on xfconf through a private xfconfd, and on GNOME's Desktop Icons extension through
// real gsettings on its key-file back end.

#include "core/app/Settings.h"
#include "core/environment/DesktopCleaner.h"
#include "core/environment/ProcessLauncher.h"
#include "platform/linux/GSettingsDesktopPreferences.h"
#include "platform/linux/LinuxDesktopPreferences.h"
#include "platform/linux/XfconfDesktopPreferences.h"
#include "PrivateBus.h"
#include "TestSupport.h"

#include <QFileInfo>
#include <gtest/gtest.h>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

struct DesktopCleanerTest : ::testing::Test {
    LogTail log;
    QTemporaryDir home;
    Settings settings{home.filePath("turnelo.json")};
    RecordingLauncher launcher;
};

// xfconfd started on demand on a private bus, keeping its channels in a folder of the test's. Every write
// to the icon style restarts xfdesktop, so the recorded restarts also tell whether anything was written.
struct DesktopCleanerXfconfTest : DesktopCleanerTest {
    const QString stylePath = "/desktop-icons/style";
    const QString reload = "xfdesktop --reload";
    PrivateBus bus;
    std::unique_ptr<ScopedEnv> busEnv;
    std::unique_ptr<DesktopCleaner> cleaner;

    void SetUp() override
    {
        QString xfconfd;
        for (const char *c :
             {"/usr/lib/x86_64-linux-gnu/xfce4/xfconf/xfconfd", "/usr/lib/aarch64-linux-gnu/xfce4/xfconf/xfconfd",
              "/usr/lib/xfce4/xfconf/xfconfd", "/usr/libexec/xfconfd"})
            if (QFileInfo(c).isExecutable()) xfconfd = c;
        if (xfconfd.isEmpty()) GTEST_SKIP() << "xfconfd not found (package xfconf)";
        ASSERT_TRUE(bus.ok()) << "no private dbus-daemon";
        writeFile(bus.serviceDir() + "/org.xfce.Xfconf.service",
                  QStringLiteral("[D-BUS Service]\nName=org.xfce.Xfconf\nExec=/usr/bin/env XDG_CONFIG_HOME=%1 %2\n")
                      .arg(home.filePath("config"), xfconfd)
                      .toUtf8());
        busEnv = std::make_unique<ScopedEnv>("DBUS_SESSION_BUS_ADDRESS", bus.address.toUtf8());
    }

    void makeCleaner()
    {
        auto prefs = linuxDesktopPreferences("Xubuntu:XFCE");
        ASSERT_NE(prefs, nullptr);
        cleaner = std::make_unique<DesktopCleaner>(settings, std::move(prefs), launcher);
    }

    ToolResult query(const QStringList &args)
    {
        return runTool("xfconf-query", QStringList{"-c", XfconfDesktopPreferences::channel} + args,
                       {"DBUS_SESSION_BUS_ADDRESS=" + bus.address, "LC_ALL=C"});
    }
    std::optional<QString> style()
    {
        const auto r = query({"-p", stylePath});
        return r.exitCode == 0 ? std::optional(QString::fromUtf8(r.out).trimmed()) : std::nullopt;
    }
    void setStyle(int style) { query({"-p", stylePath, "-n", "-t", "int", "-s", QString::number(style)}); }

    static DesktopCleaner::Desired hide() { return {true, false, false}; }
    static DesktopCleaner::Desired show() { return {}; }
};

}  // namespace

TEST_F(DesktopCleanerXfconfTest, HidingAndRestoringPutsTheFirstSnapshotBackAndWhatIsAlreadySetIsNotWritten)
{
    ASSERT_NO_FATAL_FAILURE(makeCleaner());
    EXPECT_TRUE(cleaner->statusText().isEmpty());
    EXPECT_TRUE(cleaner->supports(DesktopPreferences::Control::hideIcons));
    EXPECT_FALSE(cleaner->supports(DesktopPreferences::Control::hideWidgets)) << "Xfce has no widgets";
    // Never set (icons show by default), minimised-application icons (a way of showing icons),
    // file icons, hidden by the user.
    for (const std::optional<int> before :
         {std::optional<int>(), std::optional(1), std::optional(2), std::optional(0)}) {
        SCOPED_TRACE(before ? before.value() : -1);
        launcher.commands.clear();
        query({"-p", stylePath, "-r"});
        if (before) setStyle(*before);
        cleaner->reload();
        const bool hidden = before == 0;
        EXPECT_EQ(cleaner->current().hideIcons, hidden);

        // What is already there: nothing written (nothing restarted), the user's choice kept.
        cleaner->apply(hidden ? hide() : show());
        const auto was = before ? std::optional(QString::number(*before)) : std::nullopt;
        EXPECT_EQ(style(), was);
        EXPECT_TRUE(launcher.commands.isEmpty());
        if (hidden) continue;

        cleaner->apply(hide());
        EXPECT_EQ(style(), "0");
        EXPECT_EQ(launcher.commands, QStringList{reload});
        // Showing again writes the default style, not the saved one; hiding again keeps the first snapshot.
        cleaner->apply(show());
        EXPECT_EQ(style(), "2");
        cleaner->apply(hide());
        EXPECT_EQ(style(), "0");

        cleaner->restore();
        EXPECT_EQ(style(), was);
        EXPECT_EQ(launcher.commands, QStringList(4, reload));
        if (!before) continue;
        // The restored value keeps its type, so xfdesktop still reads it.
        const auto typed = query({"-p", stylePath, "-n", "-t", "int", "-s", QString::number(*before)});
        EXPECT_EQ(typed.exitCode, 0) << typed.err.toStdString();
    }
}

// The extension's schema installed per user, as GNOME Shell extensions keep theirs: found without a system one.
TEST_F(DesktopCleanerTest, GnomeHidesTheExtensionsIconsAndPutsThemBack)
{
    ScopedEnv backend{"GSETTINGS_BACKEND", "keyfile"};
    ScopedEnv config{"XDG_CONFIG_HOME", home.filePath("config").toUtf8()};
    ScopedEnv data{"XDG_DATA_HOME", home.filePath("data").toUtf8()};
    EXPECT_EQ(linuxDesktopPreferences("GNOME"), nullptr) << "no back end without the extension's schema";
    const QString schemas = installDesktopIconsSchema(home.filePath("data"));
    ASSERT_FALSE(schemas.isEmpty());
    const auto gsettings = [&](QStringList args) {
        args.insert(1, GSettingsDesktopPreferences::schema);
        return QString::fromUtf8(runTool("gsettings", QStringList{"--schemadir", schemas} + args).out).trimmed();
    };

    auto prefs = linuxDesktopPreferences("ubuntu:GNOME");
    ASSERT_NE(prefs, nullptr);
    gsettings({"set", "show-trash", "false"});
    DesktopCleaner cleaner(settings, std::move(prefs), launcher);

    cleaner.apply({true, false, false});
    for (const char *key : {"show-home", "show-trash", "show-volumes"})
        EXPECT_EQ(gsettings({"get", key}), "false") << key;
    EXPECT_TRUE(cleaner.current().hideIcons);
    // The extension follows its settings live: nothing to restart.
    EXPECT_TRUE(launcher.commands.isEmpty());

    cleaner.restore();
    for (const auto &[key, was] : {std::pair{"show-home", "true"}, {"show-trash", "false"}, {"show-volumes", "true"}})
        EXPECT_EQ(gsettings({"get", key}), was) << key;
    EXPECT_FALSE(cleaner.current().hideIcons);

    // Showing shows all three, the trash too.
    cleaner.apply({false, false, false});
    EXPECT_EQ(gsettings({"get", "show-trash"}), "true");
}
