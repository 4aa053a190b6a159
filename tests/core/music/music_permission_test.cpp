#include "core/app/Settings.h"
#include "core/music/MusicPermission.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using Status = MusicPermission::Status;
using Player = MusicPermission::Player;

// The player table the music windows show, read again on refresh, and the setup flag that
// starts the monitor once.
TEST(MusicPermission, TableRefreshAndSetup)
{
    QTemporaryDir dir;
    Settings settings(dir.filePath("settings.json"));
    const PlayerSource spotify{"com.spotify.client", "Spotify", "Spotify"}, music{"com.apple.Music", "Music", "Music"};
    Status spotifyNow = Status::notRunning;
    MusicPermission::Probe probe;
    probe.players = [&] { return QList<PlayerSource>{spotify, music}; };
    probe.status = [&](const PlayerSource &s) { return s == spotify ? spotifyNow : Status::notRunning; };
    MusicPermission permission(settings, probe);
    EXPECT_EQ(permission.players(), (QList<Player>{{spotify, Status::notRunning}, {music, Status::notRunning}}));

    // A player opened since shows on the next refresh, announced once.
    QSignalSpy changed(&permission, &MusicPermission::changed);
    spotifyNow = Status::available;
    permission.refresh();
    permission.refresh();
    EXPECT_EQ(permission.players(), (QList<Player>{{spotify, Status::available}, {music, Status::notRunning}}));
    EXPECT_EQ(changed.count(), 1);

    QSignalSpy finished(&permission, &MusicPermission::setupFinished);
    EXPECT_FALSE(permission.setupDone());
    permission.markSetupDone();
    permission.markSetupDone();
    EXPECT_EQ(finished.count(), 1);
    EXPECT_EQ(settings.value("musicSetupDone"), QVariant(true));
}
