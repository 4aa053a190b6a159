#include "Room.h"

#include <array>
#include <numbers>

namespace {

constexpr double pi = std::numbers::pi;
constexpr double wallY = 400;
constexpr double floorZ = -760;
constexpr double winX0 = -950, winX1 = -50, winZ0 = 360, winZ1 = 1300;
constexpr double mullionX = -500, mullionZ = 830, mullionHalf = 18;
constexpr double eps = 0.05;

// Sleeve: bottom edge on the desk at y = sleeveY, leaning back towards the wall.
constexpr double sleeveX0 = -760, sleeveX1 = -450, sleeveY = 345, sleeveSize = 310;
constexpr double sleeveLean = 10 * pi / 180;

const Vec3 bulbPos{560, 180, 440};
const Vec3 lampAxis = Vec3{-0.5, -0.2, -1}.normalized();
const Vec3 ceilingPos{-100, -300, 1700};

double hash2(double x, double y, uint32_t seed)
{
    uint32_t h = uint32_t(int64_t(x)) * 0x8da6b343u ^ uint32_t(int64_t(y)) * 0xd8163841u ^ seed * 0xcb1ab31fu;
    h ^= h >> 15;
    h *= 0x2c1b3c6du;
    h ^= h >> 12;
    h *= 0x297a2d39u;
    h ^= h >> 15;
    return h / 4294967296.0;
}

// Ray against a capsule (segment a–b, radius r); returns the distance or inf, and the normal.
double capsule(const Vec3 &ro, const Vec3 &rd, const Vec3 &a, const Vec3 &b, double r, Vec3 *normal)
{
    const Vec3 ba = b - a, oa = ro - a;
    const double baba = ba.dot(ba), bard = ba.dot(rd), baoa = ba.dot(oa), rdoa = rd.dot(oa), oaoa = oa.dot(oa);
    const double qa = baba - bard * bard, qb = baba * rdoa - baoa * bard, qc = baba * oaoa - baoa * baoa - r * r * baba;
    const double h = qb * qb - qa * qc;
    if (h < 0) return Room::inf;
    double t = (-qb - std::sqrt(h)) / qa;
    const double y = baoa + t * bard;
    if (y <= 0 || y >= baba) {
        // One of the caps.
        const Vec3 oc = y <= 0 ? oa : ro - b;
        const double cb = rd.dot(oc), cc = oc.dot(oc) - r * r, hh = cb * cb - cc;
        if (hh < 0) return Room::inf;
        t = -cb - std::sqrt(hh);
    }
    if (t <= eps) return Room::inf;
    const Vec3 p = ro + rd * t, pa = p - a;
    const double s = std::clamp(pa.dot(ba) / baba, 0.0, 1.0);
    *normal = (pa - ba * s) / r;
    return t;
}

}  // namespace

Room::Room(uint32_t seed)
    : seed(seed)
{
    auto box = [&](Part part, Vec3 lo, Vec3 hi, double angle = 0, bool occludes = true) {
        Prim p;
        p.kind = Prim::box;
        p.part = part;
        p.c = (lo + hi) * 0.5;
        p.e = (hi - lo) * 0.5;
        p.angle = angle;
        p.occludes = occludes;
        prims.push_back(p);
    };
    auto cylinder = [&](Part part, double x, double y, double r, double z0, double z1) {
        Prim p;
        p.kind = Prim::cylinder;
        p.part = part;
        p.c = {x, y, 0};
        p.r = r;
        p.z0 = z0;
        p.z1 = z1;
        prims.push_back(p);
    };

    // Desk and window sill; they never shadow the lights that matter.
    box(Part::desk, {-1300, -600, -40}, {1300, wallY, 0}, 0, false);
    box(Part::frame, {winX0 - 40, wallY - 55, winZ0 - 25}, {winX1 + 40, wallY, winZ0}, 0, false);
    // Turntable: walnut plinth with an aluminium top, platter, record, spindle, arm base and rest.
    box(Part::plinth, {-230, -130, 0}, {230, 230, plinthTopZ});
    cylinder(Part::platter, recordX, recordY, 155, plinthTopZ, 103);
    cylinder(Part::record, recordX, recordY, 150, 103, recordTopZ);
    cylinder(Part::spindle, recordX, recordY, 3.5, recordTopZ, recordTopZ + 12);
    pivotPoint = {recordX + 160, recordY + 144, recordTopZ};
    cylinder(Part::metal, pivotPoint.x, pivotPoint.y, 20, plinthTopZ, recordTopZ + 6);
    cylinder(Part::metal, pivotPoint.x, pivotPoint.y - armLength(), 5, plinthTopZ, recordTopZ + 9);
    cylinder(Part::led, led33().x, led33().y, ledRadius(), plinthTopZ, plinthTopZ + 0.8);
    cylinder(Part::led, led45().x, led45().y, ledRadius(), plinthTopZ, plinthTopZ + 0.8);
    // The stack of sleeves lying flat, the top one white so the art can be multiplied in.
    box(Part::stack, {-715, -405, 0}, {-405, -95, 3}, -0.07);
    box(Part::stack, {-715, -405, 3}, {-405, -95, 6}, 0.12);
    box(Part::stackTop, {-715, -405, 6}, {-405, -95, 9}, -0.03);
    // Standing sleeve, leaning against the wall.
    {
        Prim p;
        p.kind = Prim::quad;
        p.part = Part::sleeve;
        p.c = {sleeveX0, sleeveY, 0};
        p.u = {sleeveX1 - sleeveX0, 0, 0};
        p.v = Vec3{0, std::sin(sleeveLean), std::cos(sleeveLean)} * sleeveSize;
        prims.push_back(p);
    }
    // Cup of coffee.
    cylinder(Part::cup, cupX, cupY, 42, 0, cupTopZ);
    // Desk lamp: base, stem, shade, bulb.
    cylinder(Part::lampBody, 620, 250, 85, 0, 22);
    cylinder(Part::lampBody, 620, 250, 10, 22, 470);
    box(Part::lampBody, {555, 170, 455}, {625, 260, 470});
    {
        Prim shade;
        shade.kind = Prim::cylinder;
        shade.part = Part::lampShade;
        shade.c = {bulbPos.x, bulbPos.y, 0};
        shade.r = 95;
        shade.z0 = 455;
        shade.z1 = 540;
        prims.push_back(shade);
        Prim bulb;
        bulb.kind = Prim::sphere;
        bulb.part = Part::bulb;
        bulb.c = bulbPos;
        bulb.r = 28;
        bulb.occludes = false;
        prims.push_back(bulb);
    }

    for (Prim &p : prims) {
        p.cosA = std::cos(p.angle);
        p.sinA = std::sin(p.angle);
        switch (p.kind) {
        case Prim::box:
            p.boundCentre = p.c;
            p.boundRadius = p.e.length();
            break;
        case Prim::cylinder:
            p.boundCentre = {p.c.x, p.c.y, 0.5 * (p.z0 + p.z1)};
            p.boundRadius = std::hypot(p.r, 0.5 * (p.z1 - p.z0));
            break;
        case Prim::sphere:
            p.boundCentre = p.c;
            p.boundRadius = p.r;
            break;
        case Prim::quad:
            p.boundCentre = p.c + (p.u + p.v) * 0.5;
            p.boundRadius = 0.5 * (p.u + p.v).length() + 1;
            break;
        }
    }

    // The dust cover, open: hinged at the plinth's back edge and tilted back 15 degrees.
    lidOrigin = {-230, 230, plinthTopZ};
    lidU = {460, 0, 0};
    lidV = Vec3{0, std::sin(15 * pi / 180), std::cos(15 * pi / 180)} * 400;
    lidN = lidV.cross(lidU).normalized();  // faces the camera side (−y)

    // Mean irradiance over the sleeve's face per light: the source of the bounced light.
    const auto c = sleeveCorners();
    const Vec3 n = (c[1] - c[0]).cross(c[3] - c[0]).normalized() * -1;
    for (int k = 0; k < 5; ++k) {
        for (int v = 0; v < 4; ++v) {
            Vec3 sum;
            for (int i = 0; i < 9; ++i) {
                const double a = (i % 3 + 0.5) / 3, b = (i / 3 + 0.5) / 3;
                const Vec3 q = c[3] + (c[2] - c[3]) * a + (c[0] - c[3]) * b;
                sum += irradiance({static_cast<LightKind>(k), v}, q, n, 0.5);
            }
            sleeveE[k][v] = sum / 9;
        }
    }
}

std::vector<Vec3> Room::lidCorners() const
{
    return {lidOrigin, lidOrigin + lidU, lidOrigin + lidU + lidV, lidOrigin + lidV};
}

std::vector<Vec3> Room::sleeveCorners() const
{
    const Vec3 v = Vec3{0, std::sin(sleeveLean), std::cos(sleeveLean)} * sleeveSize;
    const Vec3 bl{sleeveX0, sleeveY, 0}, br{sleeveX1, sleeveY, 0};
    return {bl + v, br + v, br, bl};
}

std::vector<Vec3> Room::bounceArea() const
{
    return {{sleeveX0 - 140, 120, 0},   {sleeveX1 + 140, 120, 0},     {sleeveX1 + 140, wallY, 0},
            {sleeveX0 - 140, wallY, 0}, {sleeveX0 - 140, wallY, 380}, {sleeveX1 + 140, wallY, 380}};
}

Vec3 Room::sunDirection(int key)
{
    static const Vec3 dirs[3] = {Vec3{-0.55, 1, 0.75}.normalized(), Vec3{0.15, 1, 1.6}.normalized(),
                                 Vec3{0.35, 1, 0.55}.normalized()};
    return dirs[std::clamp(key, 0, 2)];
}

Vec3 Room::keyLightDirection(int sunKey) const
{
    if (sunKey >= 0) return sunDirection(sunKey);
    return (bulbPos - recordCentre()).normalized();
}

double Room::noise(double x, double y) const
{
    const double ix = std::floor(x), iy = std::floor(y);
    double fx = x - ix, fy = y - iy;
    fx = fx * fx * (3 - 2 * fx);
    fy = fy * fy * (3 - 2 * fy);
    const double a = hash2(ix, iy, seed), b = hash2(ix + 1, iy, seed), c = hash2(ix, iy + 1, seed),
                 d = hash2(ix + 1, iy + 1, seed);
    return a + (b - a) * fx + (c - a) * fy + (a - b - c + d) * fx * fy;
}

bool Room::hitPrim(const Prim &prim, const Vec3 &o, const Vec3 &d, double tMax, Surface *s) const
{
    {
        // Quick miss against the bounding sphere.
        const Vec3 oc = o - prim.boundCentre;
        const double b = oc.dot(d), c = oc.dot(oc) - prim.boundRadius * prim.boundRadius;
        if (c > 0 && (b > 0 || b * b < c)) return false;
        if (c > 0 && -b - std::sqrt(b * b - c) >= tMax) return false;
    }
    auto toLocal = [&](const Vec3 &v) {
        return Vec3{prim.cosA * v.x + prim.sinA * v.y, -prim.sinA * v.x + prim.cosA * v.y, v.z};
    };
    switch (prim.kind) {
    case Prim::box: {
        const Vec3 lo = toLocal(o - prim.c), ld = toLocal(d);
        double t0 = -inf, t1 = inf;
        int axis = 0;
        double sign = 1;
        const double os[3] = {lo.x, lo.y, lo.z}, ds[3] = {ld.x, ld.y, ld.z}, es[3] = {prim.e.x, prim.e.y, prim.e.z};
        for (int i = 0; i < 3; ++i) {
            if (std::abs(ds[i]) < 1e-12) {
                if (std::abs(os[i]) > es[i]) return false;
                continue;
            }
            double ta = (-es[i] - os[i]) / ds[i], tb = (es[i] - os[i]) / ds[i];
            double sg = -1;
            if (ta > tb) {
                std::swap(ta, tb);
                sg = 1;
            }
            if (ta > t0) {
                t0 = ta;
                axis = i;
                sign = sg;
            }
            t1 = std::min(t1, tb);
        }
        if (t0 > t1 || t0 <= eps || t0 >= tMax) return false;
        Vec3 ln{axis == 0 ? sign : 0, axis == 1 ? sign : 0, axis == 2 ? sign : 0};
        s->t = t0;
        s->p = o + d * t0;
        s->n = {prim.cosA * ln.x - prim.sinA * ln.y, prim.sinA * ln.x + prim.cosA * ln.y, ln.z};
        s->part = prim.part;
        const Vec3 lp = lo + ld * t0;
        s->local = {(lp.x + prim.e.x) / (2 * prim.e.x), (prim.e.y - lp.y) / (2 * prim.e.y), ln.z};
        return true;
    }
    case Prim::cylinder: {
        double best = tMax;
        Vec3 n;
        const double ox = o.x - prim.c.x, oy = o.y - prim.c.y;
        const double a = d.x * d.x + d.y * d.y;
        if (a > 1e-12) {
            const double b = ox * d.x + oy * d.y, c = ox * ox + oy * oy - prim.r * prim.r;
            const double h = b * b - a * c;
            if (h >= 0) {
                const double t = (-b - std::sqrt(h)) / a;
                const double z = o.z + d.z * t;
                if (t > eps && t < best && z >= prim.z0 && z <= prim.z1) {
                    best = t;
                    n = Vec3{ox + d.x * t, oy + d.y * t, 0} / prim.r;
                }
            }
        }
        if (std::abs(d.z) > 1e-12) {
            for (double zc : {prim.z1, prim.z0}) {
                const double t = (zc - o.z) / d.z;
                const double x = ox + d.x * t, y = oy + d.y * t;
                if (t > eps && t < best && x * x + y * y <= prim.r * prim.r) {
                    best = t;
                    n = {0, 0, zc == prim.z1 ? 1.0 : -1.0};
                }
            }
        }
        if (best >= tMax) return false;
        s->t = best;
        s->p = o + d * best;
        s->n = n;
        s->part = prim.part;
        s->local = {std::atan2(s->p.y - prim.c.y, s->p.x - prim.c.x), (s->p.z - prim.z0) / (prim.z1 - prim.z0), 0};
        return true;
    }
    case Prim::sphere: {
        const Vec3 oc = o - prim.c;
        const double b = oc.dot(d), c = oc.dot(oc) - prim.r * prim.r, h = b * b - c;
        if (h < 0) return false;
        const double t = -b - std::sqrt(h);
        if (t <= eps || t >= tMax) return false;
        s->t = t;
        s->p = o + d * t;
        s->n = (s->p - prim.c) / prim.r;
        s->part = prim.part;
        return true;
    }
    case Prim::quad: {
        const Vec3 n = prim.u.cross(prim.v).normalized();
        const double dn = d.dot(n);
        if (std::abs(dn) < 1e-12) return false;
        const double t = (prim.c - o).dot(n) / dn;
        if (t <= eps || t >= tMax) return false;
        const Vec3 rel = o + d * t - prim.c;
        const double a = rel.dot(prim.u) / prim.u.dot(prim.u), b = rel.dot(prim.v) / prim.v.dot(prim.v);
        if (a < 0 || a > 1 || b < 0 || b > 1) return false;
        s->t = t;
        s->p = o + d * t;
        s->n = dn < 0 ? n : -n;
        s->part = prim.part;
        s->local = {a, 1 - b, 0};
        return true;
    }
    }
    return false;
}

Room::Surface Room::trace(const Vec3 &o, const Vec3 &d) const
{
    Surface best;
    // Wall with the window opening, and the floor under the desk.
    if (d.y > 1e-12) {
        const double t = (wallY - o.y) / d.y;
        if (t > eps) {
            const Vec3 p = o + d * t;
            best.t = t;
            best.p = p;
            best.n = {0, -1, 0};
            const bool inWindow = p.x > winX0 && p.x < winX1 && p.z > winZ0 && p.z < winZ1;
            const bool onMullion = std::abs(p.x - mullionX) < mullionHalf || std::abs(p.z - mullionZ) < mullionHalf;
            best.part = inWindow ? (onMullion ? Part::frame : Part::glass) : Part::wall;
        }
    }
    if (d.z < -1e-12) {
        const double t = (floorZ - o.z) / d.z;
        if (t > eps && t < best.t) {
            best.t = t;
            best.p = o + d * t;
            best.n = {0, 0, 1};
            best.part = Part::floor;
        }
    }
    for (const Prim &prim : prims) {
        Surface s;
        if (hitPrim(prim, o, d, best.t, &s)) best = s;
    }
    if (best.part == Part::record || best.part == Part::platter) {
        const double rx = best.p.x - recordX, ry = best.p.y - recordY;
        if (best.part == Part::record && best.n.z > 0.5 && rx * rx + ry * ry < labelRadius() * labelRadius())
            best.part = Part::label;
    }
    if (best.part == Part::plinth && best.n.z > 0.5) best.part = Part::plinthTop;
    if (best.part == Part::cup && best.n.z > 0.5) {
        const double rx = best.p.x - cupX, ry = best.p.y - cupY;
        if (rx * rx + ry * ry < 38 * 38) best.part = Part::coffee;
    }
    if (best.part != Part::none) best.albedo = albedoOf(best.part, best.p, best.n);
    if (best.part == Part::stackTop && best.n.z < 0.5) best.part = Part::stack;
    return best;
}

double Room::lidDistance(const Vec3 &o, const Vec3 &d) const
{
    const double dn = d.dot(lidN);
    if (std::abs(dn) < 1e-12) return inf;
    const double t = (lidOrigin - o).dot(lidN) / dn;
    if (t <= eps) return inf;
    const Vec3 rel = o + d * t - lidOrigin;
    const double a = rel.dot(lidU) / lidU.dot(lidU), b = rel.dot(lidV) / lidV.dot(lidV);
    return a >= 0 && a <= 1 && b >= 0 && b <= 1 ? t : inf;
}

Vec3 Room::albedoOf(Part part, const Vec3 &p, const Vec3 &n) const
{
    switch (part) {
    case Part::wall:
        return Vec3{0.72, 0.68, 0.62} * (0.95 + 0.05 * noise(p.x * 0.02, p.z * 0.02));
    case Part::glass:
        return {0, 0, 0};
    case Part::frame:
        return {0.8, 0.8, 0.78};
    case Part::floor:
        return Vec3{0.22, 0.14, 0.09} * (0.8 + 0.2 * noise(p.x * 0.004, p.y * 0.05));
    case Part::desk: {
        const double grain = noise(p.x * 0.004, p.y * 0.09) * 5;
        return Vec3{0.42, 0.27, 0.15} * (0.82 + 0.18 * std::sin(p.y * 0.08 + grain));
    }
    case Part::plinth:
        return Vec3{0.28, 0.16, 0.08} * (0.85 + 0.15 * noise(p.x * 0.01, p.z * 0.2));
    case Part::plinthTop:
        return {0.5, 0.5, 0.52};
    case Part::platter: {
        if (std::abs(n.z) > 0.5) return {0.3, 0.3, 0.32};
        // Strobe dots printed round the rim.
        const double a = std::atan2(p.y - recordY, p.x - recordX) / (2 * pi) * strobeDots();
        const double f = a - std::floor(a), h = (p.z - plinthTopZ) / (103 - plinthTopZ);
        return std::abs(f - 0.5) < 0.22 && std::abs(h - 0.5) < 0.3 ? Vec3{0.6, 0.6, 0.6} : Vec3{0.25, 0.25, 0.27};
    }
    case Part::record:
        return {0.088, 0.088, 0.088};
    case Part::label:
        return {0.8, 0.8, 0.8};
    case Part::spindle:
    case Part::metal:
        return {0.6, 0.6, 0.62};
    case Part::led:
        return {0.18, 0.03, 0.02};
    case Part::sleeve:
        return {0.82, 0.82, 0.82};
    case Part::stack:
        return p.z < 3 ? Vec3{0.15, 0.25, 0.45} : Vec3{0.55, 0.33, 0.14};
    case Part::stackTop:
        return n.z > 0.5 ? Vec3{0.8, 0.8, 0.8} : Vec3{0.3, 0.3, 0.3};
    case Part::cup:
        return {0.85, 0.83, 0.8};
    case Part::coffee:
        return {0.09, 0.05, 0.03};
    case Part::lampBody:
        return {0.06, 0.06, 0.06};
    case Part::lampShade:
        return {0.08, 0.22, 0.14};
    case Part::bulb:
        return {0.9, 0.9, 0.9};
    case Part::none:
        break;
    }
    return {};
}

bool Room::occludedDir(const Vec3 &from, const Vec3 &dir, const ArmPose *arm, bool scene) const
{
    Surface s;
    for (const Prim &prim : prims)
        if (scene && prim.occludes && hitPrim(prim, from, dir, inf, &s)) return true;
    ArmHit hit;
    return arm && traceArm(*arm, from, dir, &hit);
}

bool Room::occluded(const Vec3 &from, const Vec3 &to, const ArmPose *arm, bool scene) const
{
    const Vec3 delta = to - from;
    const double dist = delta.length();
    const Vec3 dir = delta / dist;
    Surface s;
    for (const Prim &prim : prims)
        if (scene && prim.occludes && hitPrim(prim, from, dir, dist - 1, &s)) return true;
    ArmHit hit;
    return arm && traceArm(*arm, from, dir, &hit) && hit.t < dist;
}

// How much of a ray towards the sun gets through the window opening (soft at the frame edges).
double Room::windowPass(const Vec3 &p, const Vec3 &dir) const
{
    if (dir.y <= 1e-6 || p.y > wallY - 1) return 0;
    const double t = (wallY - p.y) / dir.y;
    const Vec3 q = p + dir * t;
    const double soft = 10;
    double v = smoothstep(winX0, winX0 + soft, q.x) * (1 - smoothstep(winX1 - soft, winX1, q.x)) *
               smoothstep(winZ0, winZ0 + soft, q.z) * (1 - smoothstep(winZ1 - soft, winZ1, q.z));
    v *= smoothstep(mullionHalf - soft / 2, mullionHalf + soft / 2, std::abs(q.x - mullionX));
    v *= smoothstep(mullionHalf - soft / 2, mullionHalf + soft / 2, std::abs(q.z - mullionZ));
    return v;
}

Vec3 Room::skyRadiance(int variant)
{
    static const Vec3 radiance[4] = {{1.0, 1.05, 1.2}, {1.5, 1.6, 1.85}, {1.25, 1.05, 0.85}, {0.05, 0.07, 0.14}};
    return radiance[std::clamp(variant, 0, 3)];
}

double Room::skyFactor(const Vec3 &p, const Vec3 &n, double jitter, const ArmPose *arm, bool sceneOccludes) const
{
    // The window as an area light, 4 × 4 jittered samples.
    const Vec3 origin = p + n * 0.2;
    const double area = (winX1 - winX0) * (winZ1 - winZ0) * 1e-6 / 16;
    double sum = 0;
    for (int i = 0; i < 16; ++i) {
        const double fx = ((i % 4) + std::fmod(jitter + 0.37 * i, 1.0)) / 4;
        const double fz = ((i / 4) + std::fmod(jitter * 1.7 + 0.61 * i, 1.0)) / 4;
        const Vec3 q{winX0 + (winX1 - winX0) * fx, wallY, winZ0 + (winZ1 - winZ0) * fz};
        const Vec3 w = q - p;
        const double d2 = std::max(w.dot(w) * 1e-6, 0.01);
        const Vec3 wd = w.normalized();
        const double cp = n.dot(wd), cw = wd.y;
        if (cp <= 0 || cw <= 0 || occluded(origin, q, arm, sceneOccludes)) continue;
        sum += cp * cw * area / d2;
    }
    return sum;
}

double Room::indirect(const Vec3 &n)
{
    // Light that reaches a point after bouncing off the room's walls, floor and ceiling: more from
    // above and from the lit side of the room than from below.
    return 0.22 + 0.08 * n.z - 0.04 * n.y;
}

Room::Factors Room::factors(const Vec3 &p, const Vec3 &n, double jitter) const
{
    return {skyFactor(p, n, jitter, nullptr, true), sleeveFactor(p, n)};
}

Vec3 Room::irradiance(const Light &l, const Vec3 &p, const Vec3 &n, double jitter, const ArmPose *arm,
                      bool sceneOccludes) const
{
    const Vec3 origin = p + n * 0.2;
    switch (l.kind) {
    case LightKind::sun: {
        static const Vec3 colours[3] = {{3.2, 2.8, 2.3}, {3.6, 3.5, 3.3}, {3.0, 2.0, 1.1}};
        const Vec3 s = sunDirection(l.variant);
        const double c = std::max(0.0, n.dot(s));
        const Vec3 bounced = colours[std::clamp(l.variant, 0, 2)] * (0.25 * indirect(n));
        const double pass = windowPass(p, s);
        if (pass <= 0 || occludedDir(origin, s, arm, sceneOccludes)) return bounced;
        return colours[std::clamp(l.variant, 0, 2)] * (c * pass) + bounced;
    }
    case LightKind::sky:
        return skyRadiance(l.variant) * (skyFactor(p, n, jitter, arm, sceneOccludes) + indirect(n));
    case LightKind::room: {
        // A ceiling light: four jittered samples over a 400 mm panel, plus a little fill.
        Vec3 e{0.02, 0.018, 0.015};
        for (int i = 0; i < 4; ++i) {
            const double ox = ((i % 2) - 0.5 + (std::fmod(jitter + 0.31 * i, 1.0) - 0.5) * 0.9) * 400;
            const double oy = ((i / 2) - 0.5 + (std::fmod(jitter * 2.3 + 0.53 * i, 1.0) - 0.5) * 0.9) * 400;
            const Vec3 q = ceilingPos + Vec3{ox, oy, 0};
            const Vec3 w = q - p;
            const double d2 = w.dot(w) * 1e-6;
            const Vec3 wd = w.normalized();
            const double cp = n.dot(wd);
            if (cp <= 0 || occluded(origin, q, arm, sceneOccludes)) continue;
            e += Vec3{1.0, 0.9, 0.75} * (0.25 * 1.2 * cp * wd.z / d2);
        }
        return e;
    }
    case LightKind::lamp: {
        Vec3 e;
        for (int i = 0; i < 2; ++i) {
            const double a = 2 * pi * (jitter + 0.5 * i);
            const Vec3 q = bulbPos + Vec3{std::cos(a) * 14, std::sin(a) * 14, -10};
            const Vec3 w = q - p;
            const double d2 = std::max(w.dot(w) * 1e-6, 0.005);
            const Vec3 wd = w.normalized();
            const double cp = n.dot(wd);
            const double cone = smoothstep(std::cos(75 * pi / 180), std::cos(40 * pi / 180), -wd.dot(lampAxis));
            if (cp <= 0 || cone <= 0 || occluded(origin, q, arm, sceneOccludes)) continue;
            e += Vec3{1.0, 0.86, 0.66} * (0.5 * 0.5 * cone * cp / d2);
        }
        return e + Vec3{1.0, 0.86, 0.66} * (0.35 * indirect(n));
    }
    case LightKind::view:
        return {};
    }
    return {};
}

Vec3 Room::viewRadiance(int variant, const Vec3 &dir, const Vec3 &from) const
{
    static const Vec3 horizon[4] = {{1.6, 1.25, 0.95}, {1.7, 1.8, 2.0}, {2.0, 1.15, 0.6}, {0.03, 0.035, 0.06}};
    static const Vec3 zenith[4] = {{0.6, 0.8, 1.3}, {0.6, 0.9, 1.7}, {0.5, 0.6, 1.0}, {0.006, 0.009, 0.022}};
    const int v = std::clamp(variant, 0, 3);
    // Buildings across the street, 9 m beyond the wall.
    const double t = (wallY + 25000 - from.y) / std::max(dir.y, 1e-6);
    const Vec3 q = from + dir * t;
    const double block = std::floor(q.x / 3500);
    const double top = -1500 + 3800 * hash2(block, 3.1, seed);
    if (q.z < top) {
        const bool lit = hash2(std::floor(q.x / 700), std::floor(q.z / 900), seed + 7) < 0.3;
        const bool pane = std::fmod(std::abs(q.x), 700) > 250 && std::fmod(std::abs(q.z), 900) > 400;
        static const Vec3 facade[4] = {{0.45, 0.38, 0.32}, {0.55, 0.53, 0.5}, {0.6, 0.42, 0.28}, {0.008, 0.008, 0.01}};
        Vec3 c = facade[v] * (0.8 + 0.2 * hash2(block, 9.7, seed));
        if (pane) c = v == 3 && lit ? Vec3{0.9, 0.62, 0.3} : c * 0.55;
        return c;
    }
    const double el = clamp01(dir.z * 1.6 + 0.2);
    Vec3 sky = horizon[v] * (1 - el) + zenith[v] * el;
    if (v < 3) {
        const double cloud = smoothstep(0.55, 0.85, noise(q.x * 0.00035, q.z * 0.0007));
        sky = sky * (1 - 0.4 * cloud) + horizon[v] * (1.3 * cloud * 0.4);
    }
    return sky;
}

Vec3 Room::emission(const Light &l, const Surface &s, const Vec3 &viewDir) const
{
    if (l.kind == LightKind::view && s.part == Part::glass) return viewRadiance(l.variant, viewDir, s.p);
    if (l.kind == LightKind::lamp && s.part == Part::bulb) return {9.0, 7.5, 5.2};
    return {};
}

Vec3 Room::glossy(const Light &l, const Vec3 &p, const Vec3 &r, double exponent) const
{
    const double norm = (exponent + 2) / (2 * pi);
    switch (l.kind) {
    case LightKind::sun: {
        const Vec3 s = sunDirection(l.variant);
        const double c = r.dot(s);
        if (c <= 0 || windowPass(p, s) <= 0) return {};
        return irradiance(l, p, s, 0.5) * (norm * std::pow(c, exponent));
    }
    case LightKind::lamp:
    case LightKind::room: {
        const Vec3 src = l.kind == LightKind::lamp ? bulbPos : ceilingPos;
        const Vec3 w = (src - p).normalized();
        const double c = r.dot(w);
        if (c <= 0) return {};
        return irradiance(l, p, w, 0.5) * (norm * std::pow(c, exponent));
    }
    case LightKind::sky:
    case LightKind::view: {
        const Surface s = trace(p + r * 0.2, r);
        if (s.part != Part::glass) return {};
        if (l.kind == LightKind::view) return viewRadiance(l.variant, r, s.p);
        return skyRadiance(l.variant) * 0.3;
    }
    }
    return {};
}

Vec3 Room::sleeveRadiance(const Light &l) const
{
    if (l.kind == LightKind::view) return {};
    return sleeveE[static_cast<int>(l.kind)][std::clamp(l.variant, 0, 3)] * (0.82 / pi);
}

double Room::sleeveFactor(const Vec3 &p, const Vec3 &n) const
{
    const auto c = sleeveCorners();
    const Vec3 sn = (c[1] - c[0]).cross(c[3] - c[0]).normalized() * -1;
    if ((p - c[3]).dot(sn) <= 1) return 0;
    const double area = (c[1] - c[0]).length() * (c[3] - c[0]).length() * 1e-6 / 9;
    double f = 0;
    for (int i = 0; i < 9; ++i) {
        const double a = (i % 3 + 0.5) / 3, b = (i / 3 + 0.5) / 3;
        const Vec3 q = c[3] + (c[2] - c[3]) * a + (c[0] - c[3]) * b;
        const Vec3 w = q - p;
        const double d2 = std::max(w.dot(w) * 1e-6, 0.02);
        const Vec3 wd = w.normalized();
        const double cp = n.dot(wd), cs = -wd.dot(sn);
        if (cp > 0 && cs > 0) f += cp * cs * area / d2;
    }
    return f;
}

Vec3 Room::shade(const Light &l, const Surface &s, const Vec3 &viewDir, double jitter, const Factors &f) const
{
    if (s.part == Part::none) return {};
    Vec3 e =
        l.kind == LightKind::sky ? skyRadiance(l.variant) * (f.sky + indirect(s.n)) : irradiance(l, s.p, s.n, jitter);
    if (s.part != Part::sleeve) e += sleeveRadiance(l) * f.sleeve;
    Vec3 out = s.albedo * e * (1 / pi) + emission(l, s, viewDir);
    if (s.part == Part::record) {
        const Vec3 r = viewDir - s.n * (2 * viewDir.dot(s.n));
        out += glossy(l, s.p, r, 60) * 0.05;
    }
    return out;
}

Room::ArmPose Room::armPose(double yawDeg) const
{
    // Yaw turns the arm clockwise seen from above (about −z) from its rest direction, −y.
    const Vec3 d = rotateZ({0, -1, 0}, -yawDeg * pi / 180);
    const Vec3 up{0, 0, 1};
    const Vec3 metal{0.72, 0.72, 0.74};
    const Vec3 &pv = pivotPoint;
    ArmPose pose;
    pose.yawDeg = yawDeg;
    pose.parts = {{
        {pv - d * 35 + up * 17, pv + d * 200 + up * 17, 4, metal, 0.6},
        {pv - d * 48 + up * 17, pv - d * 80 + up * 17, 15, {0.12, 0.12, 0.13}, 0.3},
        {pv + d * 198 + up * 15, pv + d * 228 + up * 8, 7, {0.05, 0.05, 0.05}, 0.2},
        {pv + d * 226 + up * 6, pv + d * 230 + up * 0.5, 1.2, {0.6, 0.6, 0.6}, 0.2},
        {pv + up * 12, pv + up * 19, 11, metal, 0.6},
    }};
    pose.boundCentre = pv + d * 75 + up * 12;
    pose.boundRadius = 175;
    return pose;
}

bool Room::traceArm(const ArmPose &pose, const Vec3 &origin, const Vec3 &dir, ArmHit *hit) const
{
    const Vec3 oc = origin - pose.boundCentre;
    const double b = oc.dot(dir), c = oc.dot(oc) - pose.boundRadius * pose.boundRadius;
    if (c > 0 && (b > 0 || b * b < c)) return false;
    bool found = false;
    for (const ArmPart &part : pose.parts) {
        Vec3 n;
        const double t = capsule(origin, dir, part.a, part.b, part.r, &n);
        if (t < hit->t) {
            found = true;
            hit->t = t;
            hit->p = origin + dir * t;
            hit->n = n;
            hit->albedo = part.albedo;
            hit->gloss = part.gloss;
        }
    }
    return found;
}

std::vector<Vec3> Room::armHull(const ArmPose &pose) const
{
    std::vector<Vec3> pts;
    for (const ArmPart &part : pose.parts)
        for (const Vec3 &end : {part.a, part.b})
            for (int i = 0; i < 8; ++i)
                pts.push_back(end +
                              Vec3{(i & 1 ? 1 : -1) * part.r, (i & 2 ? 1 : -1) * part.r, (i & 4 ? 1 : -1) * part.r});
    return pts;
}

std::vector<Vec3> Room::lightPositionsForBounds() const
{
    std::vector<Vec3> out;
    for (int k = 0; k < 3; ++k) out.push_back(sunDirection(k) * 1e7);
    out.push_back(bulbPos);
    out.push_back(ceilingPos);
    return out;
}

double Room::yawForRadius(double radius) const
{
    const Vec3 c = recordCentre();
    auto needleRadius = [&](double yaw) {
        const Vec3 d = rotateZ({0, -1, 0}, -yaw * pi / 180);
        const Vec3 n = pivotPoint + d * armLength() - c;
        return std::hypot(n.x, n.y);
    };
    // The needle radius falls monotonically as the arm swings in over the record.
    double lo = 0, hi = 60;
    for (int i = 0; i < 60; ++i) {
        const double mid = 0.5 * (lo + hi);
        (needleRadius(mid) > radius ? lo : hi) = mid;
    }
    return 0.5 * (lo + hi);
}
