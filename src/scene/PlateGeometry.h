#pragma once

#include "core/scene/PlateManifest.h"
#include "render/SceneUniforms.h"

#include <array>
#include <optional>

// Projective 2D maps between plate pixels and the planes the shader draws on, in double
// precision; converted to the uniform layout at the end.
namespace PlateGeometry {

using Mat3 = std::array<std::array<double, 3>, 3>;  // row-major
using Vec2 = std::array<double, 2>;
using Vec3 = std::array<double, 3>;

Mat3 identity();
Mat3 multiply(const Mat3 &a, const Mat3 &b);
std::optional<Mat3> invert(const Mat3 &m);
Vec2 apply(const Mat3 &m, Vec2 p);
// The homography that takes the four `from` points to the four `to` points.
std::optional<Mat3> homography(const std::array<Vec2, 4> &from, const std::array<Vec2, 4> &to);
Float3x3 toUniform(const Mat3 &m);

// Plate → art texture coordinates: corners TL, TR, BR, BL ↦ (0,0), (1,0), (1,1), (0,1).
std::optional<Mat3> artFromPlate(const PlateManifest::Quad &corners);
// Plate → disc-plane coordinates: corners TL, TR, BR, BL ↦ (−1,1), (1,1), (1,−1), (−1,−1).
std::optional<Mat3> discFromPlate(const PlateManifest::Quad &corners);

// Screen → plate for a screen of the given size: the plate fills the screen (cropped on the
// long side), centred.
Mat3 fitPlate(double plateW, double plateH, double screenW, double screenH);

// World point through the 3×4 camera; none behind the camera.
std::optional<Vec2> projectWorld(const PlateManifest::Camera &camera, const Vec3 &world);

}  // namespace PlateGeometry
