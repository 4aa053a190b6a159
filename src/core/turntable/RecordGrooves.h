#pragma once

#include <QString>
#include <optional>
#include <utility>
#include <vector>

#include "core/music/PlayerState.h"

// The groove bands of the side that plays: one band per track of the side, from the outer edge
// inwards, each as wide as its track is long, 1.2 mm of smooth vinyl between tracks.
struct RecordGrooves {
    struct Band {
        double outer = 0;  // mm, where the track's groove starts
        double inner = 0;  // mm, where it ends
    };
    std::vector<Band> bands;
    int current = 0;  // index in bands of the playing track (0 when it is not on the side)

    // Track numbers and counts above this are taken for unknown.
    static constexpr int maxTracks = 999;

    // FNV-1a of the album title's UTF-8 bytes.
    static quint64 hash(const QString &text);
    // The album's track count: the player's when at least 1, else 8, 9 or 10 by title.
    static int assumedCount(const QString &album, int trackCount);
    // ('A' or 'B', number on the side); none for a track number below 1.
    static std::optional<std::pair<QChar, int>> side(int trackNumber, int trackCount, const QString &album);

    // The bands for a track, or for the made-up 8-track album when nothing plays.
    static RecordGrooves forTrack(const std::optional<Track> &track, double grooveOuter, double grooveInner);
    static RecordGrooves make(const QString &album, int number, int total, double duration, double grooveOuter,
                              double grooveInner);
};

// The record's rotation: eases up to 33⅓ rpm and down to rest; the angle is continuous across
// retargets. Media-clock seconds, radians.
struct RecordSpin {
    static constexpr double playSpeed = 3.4906585039886595;  // 2π · 100/3 ÷ 60

    double t0 = 0;
    double angle0 = 0;
    double omega0 = 0;
    double target = 0;
    double tau = 0;

    void set(bool playing, double t);
    double angle(double t) const;
    double speed(double t) const;
};
