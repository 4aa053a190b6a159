#include "core/app/Settings.h"
#include "core/music/MusicPermission.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using Status = MusicPermission::Status;
using Player = MusicPermission::Player;

// A player table, a later answer to a consent request, and the setup flag that starts the
// monitor once.
TEST(MusicPermission, TableRequestAndSetup)
{
    QTemporaryDir dir;
    Settings settings(dir.filePath("settings.json"));
    const PlayerSource spotify{"com.spotify.client", "Spotify", "Spotify"}, music{"com.apple.Music", "Music", "Music"};
    Status spotifyNow = Status::notDetermined;
    std::function<void(Status)> pending;
    MusicPermission::Probe probe;
    probe.players = [&] { return QList<PlayerSource>{spotify, music}; };
    probe.status = [&](const PlayerSource &s) { return s == spotify ? spotifyNow : Status::notRunning; };
    probe.request = [&](const PlayerSource &, std::function<void(Status)> answer) { pending = answer; };
    MusicPermission permission(settings, probe);
    EXPECT_EQ(permission.players(), (QList<Player>{{spotify, Status::notDetermined}, {music, Status::notRunning}}));

    QSignalSpy changed(&permission, &MusicPermission::changed);
    std::optional<Status> told;
    permission.request(spotify, [&](Status s) { told = s; });
    EXPECT_FALSE(told) << "the system answers later";
    pending(Status::granted);
    EXPECT_EQ(told, Status::granted);
    EXPECT_EQ(permission.players(), (QList<Player>{{spotify, Status::granted}, {music, Status::notRunning}}));
    EXPECT_EQ(changed.count(), 1);
    // A refresh reads the system again: consent withdrawn in the system's settings shows.
    spotifyNow = Status::denied;
    permission.refresh();
    EXPECT_EQ(permission.players(), (QList<Player>{{spotify, Status::denied}, {music, Status::notRunning}}));

    QSignalSpy finished(&permission, &MusicPermission::setupFinished);
    EXPECT_FALSE(permission.setupDone());
    permission.markSetupDone();
    permission.markSetupDone();
    EXPECT_EQ(finished.count(), 1);
    EXPECT_EQ(settings.value("musicSetupDone"), QVariant(true));
    EXPECT_TRUE(MusicPermission::promptTitle("Spotify").contains("“Spotify”"));
}
