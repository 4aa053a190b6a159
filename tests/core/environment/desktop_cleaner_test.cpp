#include "core/environment/DesktopCleaner.h"
#include "core/environment/MacDesktopLayout.h"
#include "core/environment/ProcessLauncher.h"
#include "core/app/Settings.h"
#include "TestSupport.h"

#include <QFileInfo>
#include <gtest/gtest.h>
#include <map>

using namespace testsupport;
using Desired = DesktopCleaner::Desired;
using Store = std::map<QString, QVariant>;

namespace {

// macOS's defaults database has no stand-in on Linux: a plain map holds the four keys, with
// the Finder/WindowManager table and restart commands of the Apple back end.
struct MacDefaults : DesktopPreferences {
    Store &store;
    explicit MacDefaults(Store &store)
        : store(store)
    {
    }
    static QString name(const Setting &s) { return s.domain + ' ' + s.key; }
    const Layout &layout() const override { return macDesktopLayout(); }
    std::optional<QVariant> read(const Setting &s) override
    {
        const auto it = store.find(name(s));
        return it == store.end() ? std::nullopt : std::optional(it->second);
    }
    void write(const Setting &s, const QVariant &value) override { store[name(s)] = value; }
    void remove(const Setting &s) override { store.erase(name(s)); }
};

const QString finder = "com.apple.finder CreateDesktop";
const QString hideIcons = "com.apple.WindowManager StandardHideDesktopIcons";
const QString hideWidgets = "com.apple.WindowManager StandardHideWidgets";
const QString clickToShow = "com.apple.WindowManager EnableStandardClickToShowDesktop";
const QString killFinder = "/usr/bin/killall Finder";
const QString killWindowManager = "/usr/bin/killall WindowManager";

struct DesktopCleanerTest : ::testing::Test {
    LogTail log;
    QTemporaryDir dir;
    Settings settings{dir.filePath("turnelo.json")};
    Store store;
    RecordingLauncher launcher;
    std::unique_ptr<DesktopCleaner> cleaner;

    void makeCleaner()
    {
        cleaner = std::make_unique<DesktopCleaner>(settings, std::make_unique<MacDefaults>(store), launcher);
    }
};

}  // namespace

TEST_F(DesktopCleanerTest, EachChoiceWritesAndRestartsOnlyWhatItChanges)
{
    makeCleaner();
    // Everything off on a fresh system: keys stay absent, nothing restarts.
    EXPECT_EQ(cleaner->current(), Desired{});
    cleaner->apply({});
    EXPECT_TRUE(store.empty());
    EXPECT_TRUE(launcher.commands.isEmpty());

    cleaner->apply({false, true, false});
    EXPECT_EQ(store, (Store{{hideWidgets, true}}));
    EXPECT_EQ(launcher.commands, QStringList{killWindowManager});

    // Finder restarts first.
    launcher.commands.clear();
    cleaner->apply({true, true, true});
    EXPECT_EQ(store, (Store{{finder, false}, {hideIcons, true}, {hideWidgets, true}, {clickToShow, false}}));
    EXPECT_EQ(launcher.commands, (QStringList{killFinder, killWindowManager}));
    EXPECT_EQ(cleaner->current(), (Desired{true, true, true}));

    // Showing the icons again writes the two icon keys back, leaves the others.
    launcher.commands.clear();
    cleaner->apply({false, true, true});
    EXPECT_EQ(store, (Store{{finder, true}, {hideIcons, false}, {hideWidgets, true}, {clickToShow, false}}));
    EXPECT_EQ(launcher.commands, (QStringList{killFinder, killWindowManager}));
}

TEST_F(DesktopCleanerTest, RestorePutsBackValuesAndAbsences)
{
    // What the user had is what the cleaner reports from its creation on.
    store = {{finder, false}, {hideWidgets, true}, {clickToShow, true}};
    makeCleaner();
    EXPECT_EQ(cleaner->current(), (Desired{true, true, false}));
    store = {{finder, true}, {clickToShow, true}};
    makeCleaner();
    cleaner->apply({true, true, true});
    const auto snapshot = settings.desktopSnapshot();
    cleaner->apply({false, false, true});
    EXPECT_EQ(settings.desktopSnapshot(), snapshot);

    launcher.commands.clear();
    cleaner->restore();
    EXPECT_EQ(store, (Store{{finder, true}, {clickToShow, true}}));
    EXPECT_EQ(launcher.commands, QStringList{killWindowManager});
    EXPECT_FALSE(settings.desktopSnapshot().has_value());
}

TEST_F(DesktopCleanerTest, ALauncherThatCannotStartIsLoggedAndSkipped)
{
    // The real launcher runs the tool to its end; one that does not exist is logged and the
    // rest of the work continues.
    SystemProcessLauncher real;
    const QString marker = dir.filePath("ran");
    EXPECT_EQ(real.run("/bin/sh", {"-c", "echo noise; echo more >&2; touch '" + marker + "'"}), std::nullopt);
    EXPECT_TRUE(QFileInfo::exists(marker));
    EXPECT_TRUE(real.run(dir.filePath("no-such-tool"), {}).has_value());

    struct Failing : ProcessLauncher {
        std::optional<QString> run(const QString &, const QStringList &) override { return "No such file"; }
    } failing;
    DesktopCleaner withoutTools(settings, std::make_unique<MacDefaults>(store), failing);
    withoutTools.apply({true, false, false});
    EXPECT_EQ(log.messages().filter("Mesa limpa: /usr/bin/killall falhou: No such file").size(), 2);
}
