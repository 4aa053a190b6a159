#include "core/music/AppleScriptPlayerQuery.h"

#include <gtest/gtest.h>

using namespace AppleScriptPlayerQuery;

TEST(AppleScriptPlayerQuery, RepliesOfEachPlayer)
{
    // Spotify: milliseconds, an artwork URL, no track count.
    const auto s =
        parseReply(spotify(), {"playing", "Song", "Band", "Album", 215000.0, 31.5, "https://i.scdn.co/image/abc", 7.0});
    ASSERT_TRUE(s.has_value());
    EXPECT_TRUE(s->isPlaying);
    EXPECT_EQ(s->track.title, "Song");
    EXPECT_EQ(s->track.album, "Album");
    EXPECT_DOUBLE_EQ(s->track.duration, 215.0);
    EXPECT_DOUBLE_EQ(s->position, 31.5);
    EXPECT_EQ(s->track.trackNumber, 7);
    EXPECT_EQ(s->track.trackCount, 0);
    EXPECT_EQ(s->track.source, spotify());
    EXPECT_EQ(s->artworkURL->toString(), "https://i.scdn.co/image/abc");
    const auto noArt = parseReply(spotify(), {"paused", "S", "B", "A", 1000.0, 0.0, ""});
    ASSERT_TRUE(noArt.has_value());
    EXPECT_FALSE(noArt->isPlaying);
    EXPECT_FALSE(noArt->artworkURL.has_value());
    EXPECT_EQ(noArt->track.trackNumber, 0) << "missing number reads as 0";
    EXPECT_FALSE(parseReply(spotify(), {"playing", "S", "B", "A", 1.0, 0.0, "not a url"})->artworkURL);

    // Music: seconds, number and count, no URL.
    const auto m = parseReply(music(), {"playing", "Song", "Band", "Album", 215.0, 12.0, 3.0, 11.0});
    ASSERT_TRUE(m.has_value());
    EXPECT_DOUBLE_EQ(m->track.duration, 215.0);
    EXPECT_EQ(m->track.trackNumber, 3);
    EXPECT_EQ(m->track.trackCount, 11);
    EXPECT_FALSE(m->artworkURL.has_value());
    EXPECT_EQ(m->track.source, music());
}

TEST(AppleScriptPlayerQuery, ShortOrOddReplies)
{
    EXPECT_FALSE(parseReply(spotify(), {"stopped"}).has_value());
    EXPECT_FALSE(parseReply(music(), {"playing", "S", "B", "A", 200.0}).has_value());
    EXPECT_FALSE(parseReply(music(), {}).has_value());

    // Only the exact text "playing" plays; mistyped items read as empty or 0.
    const auto odd = parseReply(music(), {"Playing", 5.0, "B", QVariant(), "long", 4.0});
    ASSERT_TRUE(odd.has_value());
    EXPECT_FALSE(odd->isPlaying);
    EXPECT_EQ(odd->track.title, "");
    EXPECT_EQ(odd->track.album, "");
    EXPECT_DOUBLE_EQ(odd->track.duration, 0.0);
    EXPECT_DOUBLE_EQ(odd->position, 4.0);
    EXPECT_EQ(odd->track.trackNumber, 0);
    // Real numbers are cut to integers.
    EXPECT_EQ(parseReply(music(), {"paused", "", "", "", 1.0, 2.0, 4.9, 10.2})->track.trackNumber, 4);
    // Numbers no int holds are unknown.
    const auto huge = parseReply(music(), {"paused", "", "", "", 1.0, 2.0, 5.8e17, -3e9});
    EXPECT_EQ(huge->track.trackNumber, 0);
    EXPECT_EQ(huge->track.trackCount, 0);
}
