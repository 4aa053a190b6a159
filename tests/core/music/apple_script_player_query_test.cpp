#include "core/music/AppleScriptPlayerQuery.h"

#include <gtest/gtest.h>

using namespace AppleScriptPlayerQuery;

TEST(AppleScriptPlayerQuery, RepliesOfEachPlayerAndOddOnes)
{
    // Spotify: milliseconds, an artwork URL, no track count.
    const auto s =
        parseReply(spotify(), {"playing", "Song", "Band", "Album", 215000.0, 31.5, "https://i.scdn.co/image/abc", 7.0});
    ASSERT_TRUE(s.has_value());
    EXPECT_EQ(s->track, (Track{"Song", "Band", "Album", 215.0, spotify(), 7, 0}));
    EXPECT_TRUE(s->isPlaying);
    EXPECT_DOUBLE_EQ(s->position, 31.5);
    EXPECT_EQ(s->artworkURL, QUrl("https://i.scdn.co/image/abc"));
    // Music: seconds, number and count, no URL.
    const auto m = parseReply(music(), {"paused", "Song", "Band", "Album", 215.0, 12.0, 3.0, 11.0});
    ASSERT_TRUE(m.has_value());
    EXPECT_EQ(m->track, (Track{"Song", "Band", "Album", 215.0, music(), 3, 11}));
    EXPECT_FALSE(m->isPlaying);

    EXPECT_FALSE(parseReply(spotify(), {"stopped"}).has_value());
    EXPECT_FALSE(parseReply(music(), {"playing", "S", "B", "A", 200.0}).has_value());
    // Mistyped items read as empty or 0; numbers no int holds are unknown.
    const auto odd = parseReply(music(), {"playing", 5.0, "B", QVariant(), "long", 4.0, 5.8e17, -3e9});
    ASSERT_TRUE(odd.has_value());
    EXPECT_EQ(odd->track, (Track{"", "B", "", 0, music(), 0, 0}));
}
