#pragma once

#include "Vec3.h"

#include <array>

// A pinhole camera in world millimetres (z up) rendering a plate of width × height pixels with
// square pixels, the principal point at the plate's centre and the top-left origin.
class RoomCamera {
public:
    using Matrix = std::array<std::array<double, 4>, 3>;

    // `fovX` is the horizontal field of view in degrees.
    RoomCamera(Vec3 eye, Vec3 target, double fovX, int width, int height);

    // The 3×4 matrix taking (x, y, z, 1) to homogeneous plate pixels.
    const Matrix &matrix() const { return p; }
    // Plate pixel of a world point; `depth` receives the distance along the view axis (mm).
    std::array<double, 2> project(const Vec3 &world, double *depth = nullptr) const;
    // Unit ray direction through the plate point (u, v) (pixel centres at i + 0.5).
    Vec3 ray(double u, double v) const;
    const Vec3 &eye() const { return eyePoint; }
    int width() const { return w; }
    int height() const { return h; }

private:
    Vec3 eyePoint, right, down, forward;
    double focal = 1, cx = 0, cy = 0;
    int w = 0, h = 0;
    Matrix p{};
};
