#include "core/turntable/TonearmMotion.h"

#include <algorithm>
#include <cmath>

void TonearmMotion::advance(double t, double g)
{
    const double dt = lastStep ? t - *lastStep : 0.0;
    if (dt <= 0) {
        lastStep = t;
        return;
    }
    if (dt > snapAfter) {
        // The view was asleep: no point integrating the whole gap.
        yaw = g;
        lift = 0;
        yawVel = 0;
        liftVel = 0;
        lastStep = t;
        return;
    }
    double left = dt;
    while (left > 1e-12) {
        const double h = std::min(left, maxStep);
        left -= h;
        if (std::abs(yaw - g) > 0.25) {
            liftVel += h * ((1 - lift) * 144 - 24 * liftVel);
            lift += h * liftVel;
            if (lift > 0.97) {
                yawVel += h * ((g - yaw) * 42.25 - 13 * yawVel);
                yaw += h * yawVel;
                yawVel = std::clamp(yawVel, -45.0, 45.0);
            } else {
                yawVel = yawVel * std::exp(-12 * h);
                yaw += h * yawVel;
            }
        } else if (lift < 0.002 && std::abs(liftVel) < 0.01) {
            yaw = g;
            lift = 0;
            yawVel = 0;
            liftVel = 0;
        } else {
            yawVel += h * ((g - yaw) * 42.25 - 13 * yawVel);
            liftVel += h * ((0 - lift) * 30.25 - 11 * liftVel);
            yaw += h * yawVel;
            lift += h * liftVel;
            if (lift < 0) {
                lift = 0;
                liftVel = 0;
            }
        }
    }
    lastStep = t;
}

bool TonearmMotion::moving(double g) const { return std::abs(yaw - g) > 0.0001 || lift > 0.0001; }

double TonearmMotion::goal(const Geometry &g, bool playing, double p, bool recordEffects,
                           std::optional<std::pair<double, double>> band)
{
    if (!playing) return g.yawRest;
    p = std::clamp(p, 0.0, 1.0);
    if (recordEffects) {
        const double r = band ? band->first - p * (band->first - band->second) : 0.0;
        const double travel = g.grooveOuter - r;
        const double span = g.grooveOuter - g.grooveInner;
        return g.yawLeadIn + (g.yawRunOut - g.yawLeadIn) * (span != 0 ? travel / span : 0.0);
    }
    return g.yawLeadIn + (g.yawRunOut - g.yawLeadIn) * p;
}

std::pair<int, double> TonearmMotion::neighbors(const std::vector<double> &s, double yaw)
{
    if (s.size() < 2 || yaw <= s.front()) return {0, 0.0};
    if (yaw >= s.back()) return {int(s.size()) - 2, 1.0};
    for (size_t k = 1; k < s.size(); ++k)
        if (yaw < s[k]) return {int(k) - 1, (yaw - s[k - 1]) / (s[k] - s[k - 1])};
    return {int(s.size()) - 2, 1.0};
}
