#include "core/music/AppleScriptPlayerQuery.h"

#include <gtest/gtest.h>

using namespace AppleScriptPlayerQuery;

TEST(AppleScriptPlayerQuery, RepliesOfEachPlayer)
{
    // Spotify: milliseconds, an artwork URL, no track count.
    const auto s =
        parseReply(spotify(), {"playing", "Song", "Band", "Album", 215000.0, 31.5, "https://i.scdn.co/image/abc", 7.0});
    ASSERT_TRUE(s.has_value());
    EXPECT_EQ(s->track, (Track{"Song", "Band", "Album", 215.0, spotify(), 7, 0}));
    EXPECT_TRUE(s->isPlaying);
    EXPECT_DOUBLE_EQ(s->position, 31.5);
    EXPECT_EQ(s->artworkURL, QUrl("https://i.scdn.co/image/abc"));
    const auto paused = parseReply(spotify(), {"paused", "S", "B", "A", 1000.0, 0.0, "not a url"});
    ASSERT_TRUE(paused.has_value());
    EXPECT_FALSE(paused->isPlaying);
    EXPECT_FALSE(paused->artworkURL.has_value());
    EXPECT_EQ(paused->track.trackNumber, 0) << "missing number reads as 0";

    // Music: seconds, number and count, no URL.
    const auto m = parseReply(music(), {"playing", "Song", "Band", "Album", 215.0, 12.0, 3.0, 11.0});
    ASSERT_TRUE(m.has_value());
    EXPECT_EQ(m->track, (Track{"Song", "Band", "Album", 215.0, music(), 3, 11}));
    EXPECT_FALSE(m->artworkURL.has_value());
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
    EXPECT_EQ(odd->track, (Track{"", "B", "", 0, music(), 0, 0}));
    EXPECT_DOUBLE_EQ(odd->position, 4.0);
    // Real numbers are cut to integers; numbers no int holds are unknown.
    const Track cut = parseReply(music(), {"paused", "", "", "", 1.0, 2.0, 4.9, 10.2})->track;
    EXPECT_EQ(std::pair(cut.trackNumber, cut.trackCount), std::pair(4, 10));
    const Track huge = parseReply(music(), {"paused", "", "", "", 1.0, 2.0, 5.8e17, -3e9})->track;
    EXPECT_EQ(std::pair(huge.trackNumber, huge.trackCount), std::pair(0, 0));
}
