#include "render/MovingRegions.h"

#include <algorithm>
#include <cmath>

namespace {

// Row-major 3×3, as the shader's project() applies a matrix.
struct Rows {
    float m[3][3];
};

Rows rowsOf(const Float3x3 &f)
{
    Rows r;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r.m[i][j] = f.at(i, j);
    return r;
}

Rows times(const Rows &a, const Rows &b)
{
    Rows r{};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            for (int k = 0; k < 3; ++k) r.m[i][j] += a.m[i][k] * b.m[k][j];
    return r;
}

bool invert(const Rows &a, Rows &out)
{
    const auto &m = a.m;
    const float c00 = m[1][1] * m[2][2] - m[1][2] * m[2][1];
    const float c01 = m[1][2] * m[2][0] - m[1][0] * m[2][2];
    const float c02 = m[1][0] * m[2][1] - m[1][1] * m[2][0];
    const float det = m[0][0] * c00 + m[0][1] * c01 + m[0][2] * c02;
    if (!(std::abs(det) > 1e-20f)) return false;
    const float k = 1.0f / det;
    out.m[0][0] = c00 * k;
    out.m[0][1] = (m[0][2] * m[2][1] - m[0][1] * m[2][2]) * k;
    out.m[0][2] = (m[0][1] * m[1][2] - m[0][2] * m[1][1]) * k;
    out.m[1][0] = c01 * k;
    out.m[1][1] = (m[0][0] * m[2][2] - m[0][2] * m[2][0]) * k;
    out.m[1][2] = (m[0][2] * m[1][0] - m[0][0] * m[1][2]) * k;
    out.m[2][0] = c02 * k;
    out.m[2][1] = (m[0][1] * m[2][0] - m[0][0] * m[2][1]) * k;
    out.m[2][2] = (m[0][0] * m[1][1] - m[0][1] * m[1][0]) * k;
    return true;
}

// The bounding box, in layer pixels, of the points a map takes some shape to. A point that
// falls behind the projection makes it the whole layer.
struct Bounds {
    float x0 = INFINITY, y0 = INFINITY, x1 = -INFINITY, y1 = -INFINITY;
    bool whole = false;

    void add(const Rows &m, float x, float y)
    {
        const float h[3] = {m.m[0][0] * x + m.m[0][1] * y + m.m[0][2], m.m[1][0] * x + m.m[1][1] * y + m.m[1][2],
                            m.m[2][0] * x + m.m[2][1] * y + m.m[2][2]};
        if (!(h[2] > 1e-6f)) {
            whole = true;
            return;
        }
        x0 = std::min(x0, h[0] / h[2]);
        x1 = std::max(x1, h[0] / h[2]);
        y0 = std::min(y0, h[1] / h[2]);
        y1 = std::max(y1, h[1] / h[2]);
    }
    // A rectangle (x, y, width, height), widened by the plate pixel the shader's tests allow.
    void addRect(const Rows &m, const Float4 &r)
    {
        for (float x : {r[0] - 1, r[0] + r[2] + 1})
            for (float y : {r[1] - 1, r[1] + r[3] + 1}) add(m, x, y);
    }
};

struct Rect {
    int32_t x0, y0, x1, y1;
};

// One pixel more each way than the bounds: the shader's tests and filtering reach that far.
Rect pixelsAround(const Bounds &b, int32_t w, int32_t h, bool mapped)
{
    if (!b.whole && !(b.x1 >= b.x0)) return {0, 0, 0, 0};  // nothing added
    if (!mapped || b.whole) return {0, 0, w, h};
    return {std::clamp(int32_t(std::floor(b.x0)) - 1, 0, w), std::clamp(int32_t(std::floor(b.y0)) - 1, 0, h),
            std::clamp(int32_t(std::ceil(b.x1)) + 1, 0, w), std::clamp(int32_t(std::ceil(b.y1)) + 1, 0, h)};
}

}  // namespace

bool MovingRegions::speckCell(uint32_t ring, uint32_t sector)
{
    uint32_t h = (ring * 0x8da6b343u) ^ (sector * 0xd8163841u);
    h ^= h >> 15;
    h *= 0x2c1b3c6du;
    h ^= h >> 12;
    h *= 0x297a2d39u;
    h ^= h >> 15;
    return h % 10000u < 15u;
}

MovingRegions::MovingRegions(const SceneUniforms &u, uint32_t width, uint32_t height, uint32_t only, uint32_t held)
{
    const int32_t w = int32_t(width), h = int32_t(height);
    Rows toScreen{}, fromLayer{};
    const bool mapped = invert(rowsOf(u.screenToPlate), toScreen);
    // Screen to layer pixels.
    fromLayer.m[0][0] = fromLayer.m[1][1] = fromLayer.m[2][2] = 1;
    fromLayer.m[0][2] = -u.origin[0];
    fromLayer.m[1][2] = -u.origin[1];
    const Rows plateToLayer = times(fromLayer, toScreen);
    const ShaderVariant v = ShaderVariant::of(u);

    auto toBox = [&](const Bounds &b, uint32_t part) {
        const Rect r = pixelsAround(b, w, h, mapped);
        return Box{r.x0, r.y0, r.x1, r.y1, part};
    };
    auto box = [&](const Bounds &b, uint32_t part) {
        const Box made = toBox(b, part);
        if ((only & part) && boxCount < boxes.size() && made.x1 > made.x0 && made.y1 > made.y0)
            boxes[boxCount++] = made;
    };
    auto plateRect = [&](const Float4 &r, uint32_t part) {
        if (r[2] <= 0) return;
        Bounds b;
        b.addRect(plateToLayer, r);
        box(b, part);
    };

    if (v.rain) plateRect(u.glassRect, ShaderVariant::drops);
    // The specks one by one; where that fails, the record's whole coverage: its mask, or the disc.
    Rows recordToPlate{};
    const bool recordMapped = invert(rowsOf(u.recordInv), recordToPlate);
    bool specksFound = false;
    if ((only & ShaderVariant::specks) && u.recordLight[3] > 0 && recordMapped && mapped && u.recordGeo[0] > 0) {
        const Rows m = times(plateToLayer, recordToPlate);
        const float R = u.recordGeo[0];
        const uint32_t firstRing = uint32_t(std::max(0.0f, std::floor(u.recordGeo[1] * ringsPerMm)));
        const uint32_t lastRing = uint32_t(std::ceil(R * ringsPerMm));
        specksFound = true;
        for (uint32_t ring = firstRing; ring <= lastRing && specksFound; ++ring)
            for (uint32_t sector = 0; sector < sectors; ++sector) {
                if (!speckCell(ring, sector)) continue;
                if (speckCount == speckBoxes.size()) {
                    specksFound = false;
                    speckCount = 0;
                    break;
                }
                // The cell's corners and the middle of its outer arc, turned back by the record's angle.
                Bounds b;
                const float step = 2.0f * float(M_PI) / float(sectors);
                for (float radius : {ring / ringsPerMm, (ring + 1) / ringsPerMm})
                    for (float t : {0.0f, 0.5f, 1.0f}) {
                        const float angle = (float(sector) + t) * step - u.label[0];
                        b.add(m, radius / R * std::cos(angle), radius / R * std::sin(angle));
                    }
                const Box s = toBox(b, ShaderVariant::specks);
                if (s.x1 > s.x0 && s.y1 > s.y0) speckBoxes[speckCount++] = s;
            }
    }
    if (u.recordLight[3] > 0 && !specksFound) {
        if (u.recordMaskRect[2] > 0) {
            plateRect(u.recordMaskRect, ShaderVariant::specks);
        } else {
            Bounds b;
            if (recordMapped) {
                // The unit circle, inside a 32-gon around it.
                const Rows m = times(plateToLayer, recordToPlate);
                const float r = 1.0f / std::cos(float(M_PI) / 32.0f);
                for (int i = 0; i < 32; ++i)
                    b.add(m, r * std::cos(float(M_PI) * i / 16.0f), r * std::sin(float(M_PI) * i / 16.0f));
            } else {
                b.whole = true;
            }
            box(b, ShaderVariant::specks);
        }
    }
    plateRect(u.labelMaskRect, ShaderVariant::label);
    plateRect(u.strobeRect, ShaderVariant::strobe);
    // The arm's sprites, shadows and reflections, each kind as one box over the poses that weigh.
    Bounds sprites, shadows, reflections;
    for (uint32_t j = 0; j < v.arms; ++j) {
        if (u.armWeights[j] == 0) continue;
        Rows toPlate{};
        if (!invert(rowsOf(u.armInv[j >> 1]), toPlate)) {
            sprites.whole = shadows.whole = true;
            continue;
        }
        const Rows m = times(plateToLayer, toPlate);
        if (u.armRects[j][2] > 0) sprites.addRect(m, u.armRects[j]);
        if (u.shadowRects[j][2] > 0) shadows.addRect(m, u.shadowRects[j]);
        if (u.reflRects[j][2] > 0) reflections.addRect(plateToLayer, u.reflRects[j]);
    }
    box(sprites, ShaderVariant::arm);
    box(shadows, ShaderVariant::armShadow);
    box(reflections, ShaderVariant::armReflection);
    for (uint32_t k = 0; k < v.fronts; ++k) plateRect(u.frontRects[k], ShaderVariant::front);
    cut(held);
    // Every speck with every part of the layer: small rectangles, and one shader for all of them
    // however the specks turn through the other parts.
    uint32_t everyPart = ShaderVariant::specks;
    for (size_t b = 0; b < boxCount; ++b) everyPart |= boxes[b].part;
    for (size_t i = 0; i < speckCount; ++i) {
        const Box &s = speckBoxes[i];
        regions[count++] = {s.x0, s.y0, uint32_t(s.x1 - s.x0), uint32_t(s.y1 - s.y0), everyPart};
    }
    // Fewer combinations of parts, each a program of its own that a software device keeps at a few
    // MB: the arm's parts go together (a region one of them reaches is shaded with all of them, and
    // the sprite and its shadow always as a pair), and the label's regions take the strobe too.
    // Both cost little, as the arm and the label cross few pixels; the strobe's regions do not take
    // the label, which costs a quarter more a frame.
    uint32_t armHere = everyPart & ShaderVariant::armParts;
    if (armHere & (ShaderVariant::arm | ShaderVariant::armShadow))
        armHere |= ShaderVariant::arm | ShaderVariant::armShadow;
    const uint32_t strobeHere = everyPart & ShaderVariant::strobe;
    for (size_t i = 0; i < count; ++i) {
        if (regions[i].parts & armHere) regions[i].parts |= armHere;
        if (regions[i].parts & ShaderVariant::label) regions[i].parts |= strobeHere;
    }
}

// The boxes' edges cut the layer into cells, each reached by the parts of the boxes that hold it;
// runs of cells with the same parts become one region, across and then down.
void MovingRegions::cut(uint32_t held)
{
    std::array<int32_t, 2 * maxParts> xs{}, ys{};
    size_t nx = 0, ny = 0;
    for (size_t i = 0; i < boxCount; ++i) {
        xs[nx++] = boxes[i].x0;
        xs[nx++] = boxes[i].x1;
        ys[ny++] = boxes[i].y0;
        ys[ny++] = boxes[i].y1;
    }
    std::sort(xs.begin(), xs.begin() + nx);
    std::sort(ys.begin(), ys.begin() + ny);
    nx = size_t(std::unique(xs.begin(), xs.begin() + nx) - xs.begin());
    ny = size_t(std::unique(ys.begin(), ys.begin() + ny) - ys.begin());
    for (size_t j = 0; j + 1 < ny; ++j) {
        for (size_t i = 0; i + 1 < nx;) {
            auto partsAt = [&](size_t cell) {
                uint32_t parts = 0;
                for (size_t b = 0; b < boxCount; ++b)
                    if (boxes[b].x0 <= xs[cell] && xs[cell + 1] <= boxes[b].x1 && boxes[b].y0 <= ys[j] &&
                        ys[j + 1] <= boxes[b].y1)
                        parts |= boxes[b].part;
                return parts;
            };
            const uint32_t parts = partsAt(i);
            size_t end = i + 1;
            while (end + 1 < nx && partsAt(end) == parts) ++end;
            if ((parts & ~held) != 0) {
                const Region run{xs[i], ys[j], uint32_t(xs[end] - xs[i]), uint32_t(ys[j + 1] - ys[j]), parts};
                // The same run just above grows down instead.
                Region *above = nullptr;
                for (size_t r = 0; r < count; ++r)
                    if (regions[r].x == run.x && regions[r].width == run.width && regions[r].parts == parts &&
                        regions[r].y + int32_t(regions[r].height) == run.y)
                        above = &regions[r];
                if (above) {
                    above->height += run.height;
                } else {
                    regions[count++] = run;
                }
            }
            i = end;
        }
    }
}
