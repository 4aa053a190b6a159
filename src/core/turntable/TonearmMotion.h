#pragma once

#include <optional>
#include <vector>

// Where the tonearm should be and how it gets there: it lifts, swings and lowers on critically
// damped springs, integrated in steps of at most 1/240 s; after more than 8 s without a step it
// snaps to the goal. Degrees and media-clock seconds. Main thread (scene view).
struct TonearmMotion {
    double yaw = 0;
    double lift = 0;  // 0 = needle down, 1 = fully lifted
    double yawVel = 0;
    double liftVel = 0;
    std::optional<double> lastStep;

    static constexpr double maxStep = 1.0 / 240.0;
    static constexpr double snapAfter = 8.0;

    // Advances to media time t towards the goal yaw.
    void advance(double t, double goal);
    bool moving(double goal) const;

    // The goal yaw. `band`: the playing track's (outer, inner) radii when the record effects are
    // set up; p: progress through the track, 0…1.
    struct Geometry {
        double yawRest = 0, yawLeadIn = 0, yawRunOut = 0;
        double grooveOuter = 0, grooveInner = 0;
    };
    static double goal(const Geometry &g, bool playing, double progress, bool recordEffects,
                       std::optional<std::pair<double, double>> band);

    // (index of the lower sample, fraction) over ascending samples.
    static std::pair<int, double> neighbors(const std::vector<double> &samples, double yaw);
};
