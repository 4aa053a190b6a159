#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// The composite and steam uniform blocks, byte for byte as the shaders read them (std430, laid
// out as std140 would be: a 3×3 matrix is three columns of four floats, every vec4 is 16 bytes).

using Float4 = std::array<float, 4>;

struct Float3x3 {
    std::array<Float4, 3> columns{};  // column c holds (m[0][c], m[1][c], m[2][c], pad)

    static Float3x3 identity()
    {
        Float3x3 m;
        m.columns[0] = {1, 0, 0, 0};
        m.columns[1] = {0, 1, 0, 0};
        m.columns[2] = {0, 0, 1, 0};
        return m;
    }
    // From a row-major 3×3 matrix (rows[r][c]).
    template <typename T> static Float3x3 fromRows(const std::array<std::array<T, 3>, 3> &rows)
    {
        Float3x3 m;
        for (int c = 0; c < 3; ++c) m.columns[c] = {float(rows[0][c]), float(rows[1][c]), float(rows[2][c]), 0};
        return m;
    }
    float at(int row, int column) const { return columns[column][row]; }
};

// Default: the six matrices identity, every other byte zero, which switches every optional
// effect off.
struct SceneUniforms {
    Float3x3 screenToPlate = Float3x3::identity();
    Float3x3 coverInv = Float3x3::identity();
    Float3x3 labelInv = Float3x3::identity();
    std::array<Float3x3, 2> armInv{Float3x3::identity(), Float3x3::identity()};
    Float4 plateSize{};
    Float4 origin{};
    Float4 cover{};
    Float4 label{};
    Float4 look{};
    Float4 tone{};
    Float4 mixWeights{};
    Float4 coverMaskRect{};
    Float4 labelMaskRect{};
    std::array<Float4, 4> armRects{};
    std::array<Float4, 4> shadowRects{};
    Float4 armWeights{};
    std::array<Float4, 2> frontRects{};
    Float4 frontWeights{};
    std::array<Float4, 4> reflRects{};
    Float3x3 recordInv = Float3x3::identity();
    Float4 recordGeo{};
    Float4 recordLight{};
    Float4 recordColor{};
    Float4 recordRect{};
    Float4 recordMaskRect{};
    Float4 recordMisc{};
    std::array<Float4, 8> bands{};
    Float4 bounceRect{};
    Float4 bounceWeights{};
    Float4 artMean{};
    Float4 stackRect{};
    Float4 led33{};
    Float4 led33Color{};
    Float4 led45{};
    Float4 led45Color{};
    Float4 strobe{};
    Float4 strobeColor{};
    Float4 strobeRect{};
    Float4 rain{};
    Float4 glassRect{};
    Float4 showcase{};
    std::array<Float4, 3> probes{};
    Float4 dustRect{};
    Float4 dust{};
    // The still room's top-left on the screen (xy): a layer drawn over a still reads it there.
    Float4 stillOrigin{};
    uint32_t mixCount = 0;
    uint32_t armCount = 0;
    uint32_t frontCount = 0;
    uint32_t bandCount = 0;
};

struct SteamUniforms {
    Float3x3 screenToPlate = Float3x3::identity();
    Float4 plateSize{};
    Float4 origin{};
    Float4 rect{};
    Float4 params{};  // seconds into the hour, strength, the hour, 1 once an hour was shown
    Float4 mixWeights{};
    uint32_t mixCount = 0;
    uint32_t pad0 = 0;
    uint32_t pad1 = 0;
    uint32_t pad2 = 0;
};

static_assert(sizeof(Float3x3) == 48);
static_assert(sizeof(SceneUniforms) == 1248);
static_assert(offsetof(SceneUniforms, screenToPlate) == 0);
static_assert(offsetof(SceneUniforms, coverInv) == 48);
static_assert(offsetof(SceneUniforms, labelInv) == 96);
static_assert(offsetof(SceneUniforms, armInv) == 144);
static_assert(offsetof(SceneUniforms, plateSize) == 240);
static_assert(offsetof(SceneUniforms, origin) == 256);
static_assert(offsetof(SceneUniforms, cover) == 272);
static_assert(offsetof(SceneUniforms, label) == 288);
static_assert(offsetof(SceneUniforms, look) == 304);
static_assert(offsetof(SceneUniforms, tone) == 320);
static_assert(offsetof(SceneUniforms, mixWeights) == 336);
static_assert(offsetof(SceneUniforms, coverMaskRect) == 352);
static_assert(offsetof(SceneUniforms, labelMaskRect) == 368);
static_assert(offsetof(SceneUniforms, armRects) == 384);
static_assert(offsetof(SceneUniforms, shadowRects) == 448);
static_assert(offsetof(SceneUniforms, armWeights) == 512);
static_assert(offsetof(SceneUniforms, frontRects) == 528);
static_assert(offsetof(SceneUniforms, frontWeights) == 560);
static_assert(offsetof(SceneUniforms, reflRects) == 576);
static_assert(offsetof(SceneUniforms, recordInv) == 640);
static_assert(offsetof(SceneUniforms, recordGeo) == 688);
static_assert(offsetof(SceneUniforms, recordLight) == 704);
static_assert(offsetof(SceneUniforms, recordColor) == 720);
static_assert(offsetof(SceneUniforms, recordRect) == 736);
static_assert(offsetof(SceneUniforms, recordMaskRect) == 752);
static_assert(offsetof(SceneUniforms, recordMisc) == 768);
static_assert(offsetof(SceneUniforms, bands) == 784);
static_assert(offsetof(SceneUniforms, bounceRect) == 912);
static_assert(offsetof(SceneUniforms, bounceWeights) == 928);
static_assert(offsetof(SceneUniforms, artMean) == 944);
static_assert(offsetof(SceneUniforms, stackRect) == 960);
static_assert(offsetof(SceneUniforms, led33) == 976);
static_assert(offsetof(SceneUniforms, led33Color) == 992);
static_assert(offsetof(SceneUniforms, led45) == 1008);
static_assert(offsetof(SceneUniforms, led45Color) == 1024);
static_assert(offsetof(SceneUniforms, strobe) == 1040);
static_assert(offsetof(SceneUniforms, strobeColor) == 1056);
static_assert(offsetof(SceneUniforms, strobeRect) == 1072);
static_assert(offsetof(SceneUniforms, rain) == 1088);
static_assert(offsetof(SceneUniforms, glassRect) == 1104);
static_assert(offsetof(SceneUniforms, showcase) == 1120);
static_assert(offsetof(SceneUniforms, probes) == 1136);
static_assert(offsetof(SceneUniforms, dustRect) == 1184);
static_assert(offsetof(SceneUniforms, dust) == 1200);
static_assert(offsetof(SceneUniforms, stillOrigin) == 1216);
static_assert(offsetof(SceneUniforms, mixCount) == 1232);
static_assert(offsetof(SceneUniforms, armCount) == 1236);
static_assert(offsetof(SceneUniforms, frontCount) == 1240);
static_assert(offsetof(SceneUniforms, bandCount) == 1244);

static_assert(sizeof(SteamUniforms) == 144);
static_assert(offsetof(SteamUniforms, screenToPlate) == 0);
static_assert(offsetof(SteamUniforms, plateSize) == 48);
static_assert(offsetof(SteamUniforms, origin) == 64);
static_assert(offsetof(SteamUniforms, rect) == 80);
static_assert(offsetof(SteamUniforms, params) == 96);
static_assert(offsetof(SteamUniforms, mixWeights) == 112);
static_assert(offsetof(SteamUniforms, mixCount) == 128);
static_assert(offsetof(SteamUniforms, pad2) == 140);
