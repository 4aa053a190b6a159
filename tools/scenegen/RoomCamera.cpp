#include "RoomCamera.h"

#include <numbers>

RoomCamera::RoomCamera(Vec3 eye, Vec3 target, double fovX, int width, int height)
    : eyePoint(eye)
    , w(width)
    , h(height)
{
    forward = (target - eye).normalized();
    right = forward.cross({0, 0, 1}).normalized();
    down = forward.cross(right);
    focal = 0.5 * width / std::tan(fovX * std::numbers::pi / 360.0);
    cx = 0.5 * width;
    cy = 0.5 * height;
    // P = K [R | −R·eye], rows of R being right, down, forward.
    const Vec3 rows[3] = {right, down, forward};
    const double t[3] = {-right.dot(eye), -down.dot(eye), -forward.dot(eye)};
    const double k[3][3] = {{focal, 0, cx}, {0, focal, cy}, {0, 0, 1}};
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 4; ++c) {
            double sum = 0;
            for (int i = 0; i < 3; ++i) {
                const double rc = c == 0 ? rows[i].x : c == 1 ? rows[i].y : c == 2 ? rows[i].z : t[i];
                sum += k[r][i] * rc;
            }
            p[r][c] = sum;
        }
    }
}

std::array<double, 2> RoomCamera::project(const Vec3 &world, double *depth) const
{
    double hom[3];
    for (int r = 0; r < 3; ++r) hom[r] = p[r][0] * world.x + p[r][1] * world.y + p[r][2] * world.z + p[r][3];
    if (depth) *depth = hom[2];
    return {hom[0] / hom[2], hom[1] / hom[2]};
}

Vec3 RoomCamera::ray(double u, double v) const
{
    return (forward + right * ((u - cx) / focal) + down * ((v - cy) / focal)).normalized();
}
