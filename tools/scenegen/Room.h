#pragma once

#include "Vec3.h"

#include <array>
#include <cstdint>
#include <limits>
#include <vector>

// The synthetic room the generator renders: a desk against a wall with a window, a turntable with
// its dust cover open, a standing album sleeve, a stack of sleeves, a cup and a desk lamp.
// World coordinates are millimetres, z up, the desk top at z = 0, the wall at y = wallY facing −y.
// All queries are const and safe to call from several threads at once.
class Room {
public:
    static constexpr double inf = std::numeric_limits<double>::infinity();

    enum class Part {
        none,
        wall,
        glass,
        frame,
        floor,
        desk,
        plinth,
        plinthTop,
        platter,
        record,
        label,
        spindle,
        metal,
        led,
        sleeve,
        stack,
        stackTop,
        cup,
        coffee,
        lampBody,
        lampShade,
        bulb
    };

    // A light group's variant: `variant` is the sun key index for `sun`, the time of day
    // (0 morning, 1 day, 2 afternoon, 3 night) for `sky` and `view`, unused otherwise.
    enum class LightKind { sun, sky, room, lamp, view };
    struct Light {
        LightKind kind = LightKind::room;
        int variant = 0;
    };

    struct Surface {
        double t = inf;
        Vec3 p, n, albedo;
        Part part = Part::none;
        Vec3 local;  // part-specific coordinates: art u, v of the top stack sleeve; strobe angle
    };

    // The tonearm at one yaw (lift is not modelled), as capsules; made by armPose().
    struct ArmPart {
        Vec3 a, b;
        double r = 0;
        Vec3 albedo;
        double gloss = 0;
    };
    struct ArmPose {
        double yawDeg = 0;
        std::array<ArmPart, 5> parts;
        Vec3 boundCentre;
        double boundRadius = 0;
    };
    struct ArmHit {
        double t = inf;
        Vec3 p, n, albedo;
        double gloss = 0;  // strength of the specular glint, 0…1
    };

    explicit Room(uint32_t seed);

    // Nearest surface along the ray (the dust cover is not part of it, see lidDistance).
    Surface trace(const Vec3 &origin, const Vec3 &dir) const;
    // Distance to the open acrylic dust cover, or inf.
    double lidDistance(const Vec3 &origin, const Vec3 &dir) const;
    Vec3 lidNormal() const { return lidN; }
    // The dust cover's corners: hinge left, hinge right, top right, top left.
    std::vector<Vec3> lidCorners() const;

    // Per-point geometric terms shared by every light of a group, computed once per pixel.
    struct Factors {
        double sky = 0;     // ∫ cos cos / d² over the window, occluders included (m² / m²)
        double sleeve = 0;  // the same over the standing sleeve, unoccluded
    };
    Factors factors(const Vec3 &p, const Vec3 &n, double jitter) const;

    // Irradiance (RGB, linear) that light `l` sends onto the point. `arm` adds the tonearm as an
    // occluder; `sceneOccludes` false leaves the room's own objects out (to isolate the arm's
    // shadow). `jitter` (0…1) moves the area-light samples so banding turns into fine grain.
    Vec3 irradiance(const Light &l, const Vec3 &p, const Vec3 &n, double jitter, const ArmPose *arm = nullptr,
                    bool sceneOccludes = true) const;
    double skyFactor(const Vec3 &p, const Vec3 &n, double jitter, const ArmPose *arm, bool sceneOccludes) const;
    double sleeveFactor(const Vec3 &p, const Vec3 &n) const;
    static Vec3 skyRadiance(int variant);
    // Share of a group's light that reaches a point with normal n indirectly (after room bounces).
    static double indirect(const Vec3 &n);
    // Radiance of the white sleeve under this light: what it bounces onto the desk.
    Vec3 sleeveRadiance(const Light &l) const;
    // Light that the surface emits in this group (the view through the glass, the lamp bulb).
    Vec3 emission(const Light &l, const Surface &s, const Vec3 &viewDir) const;
    // Radiance of a glossy surface reflecting this light along the mirror direction `r`.
    Vec3 glossy(const Light &l, const Vec3 &p, const Vec3 &r, double exponent) const;
    // Radiance leaving the point towards the eye: diffuse light, sleeve bounce, emission and the
    // record's sheen.
    Vec3 shade(const Light &l, const Surface &s, const Vec3 &viewDir, double jitter, const Factors &f) const;

    // Tonearm.
    ArmPose armPose(double yawDeg) const;
    bool traceArm(const ArmPose &pose, const Vec3 &origin, const Vec3 &dir, ArmHit *hit) const;
    // Points on the arm's surface hull at this yaw, for bounding rectangles.
    std::vector<Vec3> armHull(const ArmPose &pose) const;
    // Yaw (degrees) at which the needle lies `radius` millimetres from the spindle.
    double yawForRadius(double radius) const;
    // Direction towards the light and its strength, used to cast the hull's shadows for bounds.
    std::vector<Vec3> lightPositionsForBounds() const;

    // Geometry the manifest publishes.
    Vec3 recordCentre() const { return {recordX, recordY, recordTopZ}; }
    double recordRadius() const { return 150; }
    double labelRadius() const { return 50; }
    double grooveOuter() const { return 146; }
    double grooveInner() const { return 60; }
    double recordTop() const { return recordTopZ; }
    Vec3 pivot() const { return pivotPoint; }
    double armLength() const { return 230; }
    Vec3 led33() const { return {-200, -112, plinthTopZ}; }
    Vec3 led45() const { return {-176, -112, plinthTopZ}; }
    double ledRadius() const { return 3.5; }
    int strobeDots() const { return 180; }
    Vec3 cupTop() const { return {cupX, cupY, cupTopZ}; }
    // Sleeve corners: art top-left, top-right, bottom-right, bottom-left.
    std::vector<Vec3> sleeveCorners() const;
    // The desk area in front of the sleeve that its bounced light reaches.
    std::vector<Vec3> bounceArea() const;
    // Direction from the record towards the main light of a sun key, or the lamp when `sunKey` < 0.
    Vec3 keyLightDirection(int sunKey) const;
    static Vec3 sunDirection(int key);

private:
    struct Prim {
        enum Kind { box, cylinder, sphere, quad } kind = box;
        Part part = Part::none;
        Vec3 c, e, u, v;
        double r = 0, z0 = 0, z1 = 0, angle = 0;
        double cosA = 1, sinA = 0;
        Vec3 boundCentre;  // bounding sphere for a quick miss
        double boundRadius = 0;
        bool occludes = true;
    };

    bool hitPrim(const Prim &prim, const Vec3 &o, const Vec3 &d, double tMax, Surface *s) const;
    bool occluded(const Vec3 &from, const Vec3 &to, const ArmPose *arm, bool scene = true) const;
    bool occludedDir(const Vec3 &from, const Vec3 &dir, const ArmPose *arm, bool scene = true) const;
    double windowPass(const Vec3 &p, const Vec3 &dir) const;
    Vec3 albedoOf(Part part, const Vec3 &p, const Vec3 &n) const;
    Vec3 viewRadiance(int variant, const Vec3 &dir, const Vec3 &from) const;
    double noise(double x, double y) const;

    uint32_t seed;
    std::array<std::array<Vec3, 4>, 5> sleeveE{};
    std::vector<Prim> prims;
    Vec3 lidOrigin, lidU, lidV, lidN;
    Vec3 pivotPoint;
    double recordX = -55, recordY = 55, recordTopZ = 105, plinthTopZ = 95;
    // Left of the turntable, outside the lamp's pool: steam fades out where the light over the cup is bright.
    double cupX = -335, cupY = 140, cupTopZ = 95;
};
