#pragma once

#include "core/music/PlayerSourceBackend.h"
#include "core/turntable/RecordGrooves.h"
#include "core/turntable/TonearmMotion.h"

#include <algorithm>

// What the room does with a player's answer: the groove bands of the side, the arm's goal from the
// progress through the track, and a few steps of the arm towards it, as the scene view does.
inline double followSnapshot(const PlayerSourceBackend::Snapshot &s)
{
    const RecordGrooves grooves = RecordGrooves::forTrack(s.track, 146.0, 60.0);
    const double progress = s.track.duration > 0 ? std::clamp(s.position / s.track.duration, 0.0, 1.0) : 0.0;
    std::optional<std::pair<double, double>> band;
    if (grooves.current >= 0 && grooves.current < int(grooves.bands.size()))
        band =
            std::make_pair(grooves.bands[size_t(grooves.current)].outer, grooves.bands[size_t(grooves.current)].inner);
    const TonearmMotion::Geometry g{-2.0, 18.0, 38.0, 146.0, 60.0};
    const double goal = TonearmMotion::goal(g, s.isPlaying, progress, true, band);
    TonearmMotion arm;
    arm.advance(0.0, goal);
    arm.advance(0.25, goal);
    const auto [index, fraction] = TonearmMotion::neighbors({-2.0, 8.0, 18.0, 28.0, 38.0}, arm.yaw);
    return index + fraction;
}
