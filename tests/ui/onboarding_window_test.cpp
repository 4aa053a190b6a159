// Onboarding in the running application: it opens on the first start, shows the players on the bus
// and the desk as the desktop has it, and going through it starts the now-playing monitor.

#include "TestSupport.h"
#include "app/AppDelegate.h"
#include "core/app/AppIdentity.h"
#include "core/app/Settings.h"
#include "core/music/NowPlayingMonitor.h"
#include "core/music/PlayerState.h"
#include "ui/OnboardingWindow.h"

#include <QCheckBox>
#include <QListWidget>
#include <QProcess>
#include <QPushButton>
#include <QTest>
#include <gtest/gtest.h>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

TEST(OnboardingWindow, GoingThroughStartsTheMonitorAndIsNotShownAgain)
{
    QProcess player;
    player.start(builtTool("turnelo-mpris-player"), {"--name", "testy", "--identity", "Testy", "--status", "Playing",
                                                     "--track", "Corcovado|Astrud Gilberto|Getz/Gilberto|250|3|"});
    ASSERT_TRUE(player.waitForReadyRead(10000)) << player.readAllStandardError().constData();
    const QString file = Settings::userFilePath(AppIdentity::isRelease());
    // Nothing to download from: the installer fails at once and retries much later.
    Settings(file).setValue("contentServiceURL", "http://127.0.0.1:9/");
    // GNOME with its desktop icons already hidden (real gsettings on its key-file back end).
    const ScopedEnv desktop("XDG_CURRENT_DESKTOP", "GNOME");
    const ScopedEnv backend("GSETTINGS_BACKEND", "keyfile");
    const QString schemas = installDesktopIconsSchema(qEnvironmentVariable("XDG_DATA_HOME"));
    ASSERT_FALSE(schemas.isEmpty());
    const QString ding = "org.gnome.shell.extensions.ding";
    for (const QString key : {"show-home", "show-trash", "show-volumes"})
        ASSERT_EQ(runTool("gsettings", {"--schemadir", schemas, "set", ding, key, "false"}).exitCode, 0);

    {
        AppDelegate delegate({});
        delegate.start();
        OnboardingWindow &onboarding = delegate.onboarding();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(&onboarding)) << "the first start shows no welcome";
        EXPECT_EQ(onboarding.step(), 1);
        EXPECT_FALSE(delegate.nowPlaying()->isStarted()) << "a player was read before music setup";

        onboarding.continueButton()->click();
        ASSERT_EQ(onboarding.step(), 2);
        auto *players = onboarding.findChild<QListWidget *>("players");
        ASSERT_TRUE(players);
        ASSERT_EQ(players->count(), 1);
        EXPECT_TRUE(players->item(0)->text().startsWith("Testy")) << qPrintable(players->item(0)->text());
        EXPECT_FALSE(Settings(file).musicSetupDone());

        onboarding.continueButton()->click();
        ASSERT_EQ(onboarding.step(), 3);
        EXPECT_TRUE(onboarding.findChild<QCheckBox *>("hideIcons")->isChecked()) << "the desk is not shown as it is";
        for (int step = 3; step <= OnboardingWindow::stepCount; ++step) onboarding.continueButton()->click();
        EXPECT_FALSE(onboarding.isVisible());
        const Settings stored(file);
        EXPECT_TRUE(stored.musicSetupDone());
        EXPECT_TRUE(stored.onboardingDone());
        EXPECT_TRUE(delegate.nowPlaying()->isStarted());
        PlayerState &state = delegate.playerState();
        EXPECT_TRUE(waitUntil([&] { return state.track() && state.track()->title == "Corcovado"; }, 10s))
            << "the monitor did not read the player";
    }
    {
        AppDelegate again({});
        again.start();
        spin(500ms);
        EXPECT_TRUE(again.nowPlaying()->isStarted()) << "music setup was not kept";
        const QWidgetList windows = QApplication::topLevelWidgets();
        EXPECT_TRUE(std::none_of(windows.begin(), windows.end(), [](QWidget *w) {
            return w->isVisible() && w->objectName() == "TurneloOnboarding";
        })) << "the welcome came back";
    }
    player.kill();
    player.waitForFinished();
}

}  // namespace
