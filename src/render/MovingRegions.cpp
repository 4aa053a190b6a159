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

}  // namespace

MovingRegions::MovingRegions(const SceneUniforms &u, uint32_t width, uint32_t height)
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

    auto box = [&](const Bounds &b, uint32_t part) {
        if (boxCount == boxes.size()) return;
        if (!mapped || b.whole) {
            boxes[boxCount++] = {0, 0, w, h, part};
            return;
        }
        if (!(b.x1 >= b.x0)) return;
        // One pixel more each way: the shader's tests and filtering reach that far.
        const int32_t x0 = std::clamp(int32_t(std::floor(b.x0)) - 1, 0, w);
        const int32_t x1 = std::clamp(int32_t(std::ceil(b.x1)) + 1, 0, w);
        const int32_t y0 = std::clamp(int32_t(std::floor(b.y0)) - 1, 0, h);
        const int32_t y1 = std::clamp(int32_t(std::ceil(b.y1)) + 1, 0, h);
        if (x1 > x0 && y1 > y0) boxes[boxCount++] = {x0, y0, x1, y1, part};
    };
    auto plateRect = [&](const Float4 &r, uint32_t part) {
        if (r[2] <= 0) return;
        Bounds b;
        b.addRect(plateToLayer, r);
        box(b, part);
    };

    if (v.rain) plateRect(u.glassRect, ShaderVariant::drops);
    if (u.recordLight[3] > 0) {
        // Specks only where the still room has the record's coverage: its mask, or the disc.
        if (u.recordMaskRect[2] > 0) {
            plateRect(u.recordMaskRect, ShaderVariant::specks);
        } else {
            Rows toPlate{};
            Bounds b;
            if (invert(rowsOf(u.recordInv), toPlate)) {
                // The unit circle, inside a 32-gon around it.
                const Rows m = times(plateToLayer, toPlate);
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
    if (v.arms > 0) {
        // The sprites, shadows and reflections of every pose, as one box.
        Bounds b;
        for (uint32_t j = 0; j < v.arms; ++j) {
            Rows toPlate{};
            if (!invert(rowsOf(u.armInv[j >> 1]), toPlate)) {
                b.whole = true;
                continue;
            }
            const Rows m = times(plateToLayer, toPlate);
            if (u.armRects[j][2] > 0) b.addRect(m, u.armRects[j]);
            if (u.shadowRects[j][2] > 0) b.addRect(m, u.shadowRects[j]);
            if (u.reflRects[j][2] > 0) b.addRect(plateToLayer, u.reflRects[j]);
        }
        box(b, ShaderVariant::arm);
    }
    for (uint32_t k = 0; k < v.fronts; ++k) plateRect(u.frontRects[k], ShaderVariant::front);
    cut();
}

// The boxes' edges cut the layer into cells, each reached by the parts of the boxes that hold it;
// runs of cells with the same parts become one region, across and then down.
void MovingRegions::cut()
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
            if (parts != 0) {
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
