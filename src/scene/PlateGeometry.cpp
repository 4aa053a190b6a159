#include "scene/PlateGeometry.h"

#include <algorithm>
#include <cmath>

namespace PlateGeometry {

Mat3 identity() { return {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}}; }

Mat3 multiply(const Mat3 &a, const Mat3 &b)
{
    Mat3 r{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) r[i][j] += a[i][k] * b[k][j];
    return r;
}

std::optional<Mat3> invert(const Mat3 &m)
{
    const double det = m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
                       m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
                       m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
    if (std::abs(det) < 1e-300) return std::nullopt;
    Mat3 r;
    r[0][0] = (m[1][1] * m[2][2] - m[1][2] * m[2][1]) / det;
    r[0][1] = (m[0][2] * m[2][1] - m[0][1] * m[2][2]) / det;
    r[0][2] = (m[0][1] * m[1][2] - m[0][2] * m[1][1]) / det;
    r[1][0] = (m[1][2] * m[2][0] - m[1][0] * m[2][2]) / det;
    r[1][1] = (m[0][0] * m[2][2] - m[0][2] * m[2][0]) / det;
    r[1][2] = (m[0][2] * m[1][0] - m[0][0] * m[1][2]) / det;
    r[2][0] = (m[1][0] * m[2][1] - m[1][1] * m[2][0]) / det;
    r[2][1] = (m[0][1] * m[2][0] - m[0][0] * m[2][1]) / det;
    r[2][2] = (m[0][0] * m[1][1] - m[0][1] * m[1][0]) / det;
    return r;
}

Vec2 apply(const Mat3 &m, Vec2 p)
{
    const double x = m[0][0] * p[0] + m[0][1] * p[1] + m[0][2];
    const double y = m[1][0] * p[0] + m[1][1] * p[1] + m[1][2];
    const double w = m[2][0] * p[0] + m[2][1] * p[1] + m[2][2];
    return {x / w, y / w};
}

// Unit square → quad (Heckbert's closed form).
static std::optional<Mat3> squareToQuad(const std::array<Vec2, 4> &q)
{
    const double x0 = q[0][0], y0 = q[0][1], x1 = q[1][0], y1 = q[1][1];
    const double x2 = q[2][0], y2 = q[2][1], x3 = q[3][0], y3 = q[3][1];
    const double sx = x0 - x1 + x2 - x3, sy = y0 - y1 + y2 - y3;
    Mat3 m;
    if (std::abs(sx) < 1e-12 && std::abs(sy) < 1e-12) {
        m = {{{x1 - x0, x2 - x1, x0}, {y1 - y0, y2 - y1, y0}, {0, 0, 1}}};
        return m;
    }
    const double dx1 = x1 - x2, dx2 = x3 - x2, dy1 = y1 - y2, dy2 = y3 - y2;
    const double den = dx1 * dy2 - dx2 * dy1;
    if (std::abs(den) < 1e-300) return std::nullopt;
    const double g = (sx * dy2 - dx2 * sy) / den;
    const double h = (dx1 * sy - sx * dy1) / den;
    m = {{{x1 - x0 + g * x1, x3 - x0 + h * x3, x0}, {y1 - y0 + g * y1, y3 - y0 + h * y3, y0}, {g, h, 1}}};
    return m;
}

std::optional<Mat3> homography(const std::array<Vec2, 4> &from, const std::array<Vec2, 4> &to)
{
    auto a = squareToQuad(from), b = squareToQuad(to);
    if (!a || !b) return std::nullopt;
    auto ai = invert(*a);
    if (!ai) return std::nullopt;
    return multiply(*b, *ai);
}

Float3x3 toUniform(const Mat3 &m) { return Float3x3::fromRows<double>(m); }

static std::array<Vec2, 4> quad(const PlateManifest::Quad &c) { return {c[0], c[1], c[2], c[3]}; }

std::optional<Mat3> artFromPlate(const PlateManifest::Quad &corners)
{
    return homography(quad(corners), {{{0, 0}, {1, 0}, {1, 1}, {0, 1}}});
}

std::optional<Mat3> discFromPlate(const PlateManifest::Quad &corners)
{
    return homography(quad(corners), {{{-1, 1}, {1, 1}, {1, -1}, {-1, -1}}});
}

Mat3 fitPlate(double pw, double ph, double sw, double sh)
{
    const double s = std::max(sw / pw, sh / ph);
    const double ox = (sw - pw * s) * 0.5, oy = (sh - ph * s) * 0.5;
    return {{{1 / s, 0, -ox / s}, {0, 1 / s, -oy / s}, {0, 0, 1}}};
}

std::optional<Vec2> projectWorld(const PlateManifest::Camera &camera, const Vec3 &X)
{
    const auto &P = camera.P;
    double h[3];
    for (int r = 0; r < 3; ++r) h[r] = P[r][0] * X[0] + P[r][1] * X[1] + P[r][2] * X[2] + P[r][3];
    if (std::abs(h[2]) < 1e-12) return std::nullopt;
    return Vec2{h[0] / h[2], h[1] / h[2]};
}

}  // namespace PlateGeometry
