#include "core/turntable/RecordGrooves.h"

#include "core/music/AlbumHash.h"
#include "core/music/PlayerState.h"

#include <algorithm>
#include <cmath>

quint64 RecordGrooves::hash(const QString &text) { return albumHash(text); }

int RecordGrooves::assumedCount(const QString &album, int trackCount)
{
    if (trackCount >= 1) return trackCount;
    return int((hash(album) % 3) | 8);
}

std::optional<std::pair<QChar, int>> RecordGrooves::side(int number, int trackCount, const QString &album)
{
    if (number < 1) return std::nullopt;
    const int total = std::max(number, assumedCount(album, trackCount));
    const int half = int(std::ceil(total * 0.5));
    if (number > half) return std::make_pair(QChar('B'), number - half);
    return std::make_pair(QChar('A'), number);
}

RecordGrooves RecordGrooves::forTrack(const std::optional<Track> &track, double grooveOuter, double grooveInner)
{
    if (!track) return make(QString(), 1, 8, 240, grooveOuter, grooveInner);
    // Players are not trusted: a number or count past any real album's counts as unknown rather
    // than cutting the side into millions of bands.
    const auto plausible = [](int n) { return n <= maxTracks ? n : 0; };
    const int number = std::max(plausible(track->trackNumber), 1);
    const int total = std::max(number, assumedCount(track->album, plausible(track->trackCount)));
    return make(track->album, number, total, track->duration, grooveOuter, grooveInner);
}

RecordGrooves RecordGrooves::make(const QString &album, int number, int total, double duration, double grooveOuter,
                                  double grooveInner)
{
    const int half = int(std::ceil(total * 0.5));
    std::vector<int> numbers;
    if (number > half)
        for (int k = half + 1; k <= std::max(half + 1, total); ++k) numbers.push_back(k);
    else
        for (int k = 1; k <= half; ++k) numbers.push_back(k);
    std::vector<double> lengths;
    double sum = 0;
    for (int k : numbers) {
        const double len =
            (k == number && duration > 0) ? duration : double(hash(album + "#" + QString::number(k)) % 180 + 150);
        lengths.push_back(len);
        sum += len;
    }
    const int gaps = int(numbers.size()) - 1;
    const double usable = grooveOuter - grooveInner - 1.2 * gaps;
    RecordGrooves g;
    double r = grooveOuter;
    for (double len : lengths) {
        const double width = usable * len / sum;
        g.bands.push_back({r, r - width});
        r = r - width - 1.2;
    }
    auto it = std::find(numbers.begin(), numbers.end(), number);
    g.current = it == numbers.end() ? 0 : int(it - numbers.begin());
    return g;
}

static void evaluate(const RecordSpin &s, double t, double &angle, double &speed)
{
    const double dt = std::max(t - s.t0, 0.0);
    const double e = s.tau > 0 ? std::exp(-dt / s.tau) : 0.0;
    angle = std::fmod(s.angle0 + s.target * dt + (s.omega0 - s.target) * s.tau * (1 - e), 2 * M_PI);
    if (angle < 0) angle += 2 * M_PI;
    speed = s.target + (s.omega0 - s.target) * e;
}

void RecordSpin::set(bool playing, double t)
{
    const double newTarget = playing ? playSpeed : 0.0;
    if (newTarget == target) return;
    double angle, speed;
    evaluate(*this, t, angle, speed);
    const double oldTarget = target;
    t0 = t;
    angle0 = angle;
    omega0 = (speed < 0.01 && oldTarget == 0) ? 0 : speed;
    target = newTarget;
    tau = playing ? 0.16 : 0.22;
}

double RecordSpin::angle(double t) const
{
    double a, s;
    evaluate(*this, t, a, s);
    return a;
}

double RecordSpin::speed(double t) const
{
    double a, s;
    evaluate(*this, t, a, s);
    return s;
}
