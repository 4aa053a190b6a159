#include "scene/SurfaceScale.h"

#include <algorithm>
#include <cmath>
#include <numeric>

SurfaceScale::SurfaceScale(int p, bool v)
    : per120(std::max(1, p))
    , throughViewport(v)
{
}

SurfaceScale SurfaceScale::whole(int factor) { return SurfaceScale(120 * std::max(1, factor), false); }

SurfaceScale SurfaceScale::fractional(int p) { return SurfaceScale(p, true); }

int SurfaceScale::pixelStep() const { return per120 / std::gcd(per120, 120); }

namespace {

// Logical pixels for `pixels` buffer pixels, rounded as the compositor rounds.
int logicalOf(int pixels, int per120) { return int(std::lround(double(pixels) * 120.0 / per120)); }

}  // namespace

QSize SurfaceScale::pixels(const QSize &logical) const
{
    return {int(std::lround(logical.width() * factor())), int(std::lround(logical.height() * factor()))};
}

QRect SurfaceScale::snap(const QRect &r, const QSize &bounds) const
{
    if (r.isEmpty()) return {};
    const int step = pixelStep();
    const auto down = [step](int v) { return v >= 0 ? v / step * step : -((-v + step - 1) / step * step); };
    const auto up = [&down, step](int v) { return down(v + step - 1); };
    const int left = std::max(0, down(r.left())), top = std::max(0, down(r.top()));
    const int right = std::min(bounds.width(), up(r.left() + r.width()));
    const int bottom = std::min(bounds.height(), up(r.top() + r.height()));
    if (right <= left || bottom <= top) return {};
    return QRect(left, top, right - left, bottom - top);
}

QRect SurfaceScale::toLogical(const QRect &r) const
{
    const int left = logicalOf(r.left(), per120), top = logicalOf(r.top(), per120);
    return QRect(left, top, logicalOf(r.left() + r.width(), per120) - left,
                 logicalOf(r.top() + r.height(), per120) - top);
}
