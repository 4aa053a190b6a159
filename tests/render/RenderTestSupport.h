#pragma once

// Shared by the GPU tests: they run on Mesa's software device (lavapipe), so that pixels are the same on every machine.

#include "core/app/Log.h"
#include "core/scene/PlateImages.h"
#include "render/SceneRenderer.h"
#include "vulkan/TextureUpload.h"
#include "TestSupport.h"

#include <ImfRgbaFile.h>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QFloat16>
#include <QImage>
#include <algorithm>
#include <array>
#include <cmath>
#include <utility>
#include <gtest/gtest.h>

namespace rendertest {

// Before each including binary's first test: lavapipe unless the caller chose a driver, and a private log folder.
inline const bool lavapipeAndPrivateLog = [] {
    if (!qEnvironmentVariableIsSet("VK_ICD_FILENAMES") && !testsupport::lavapipeIcd().isEmpty())
        qputenv("VK_ICD_FILENAMES", testsupport::lavapipeIcd().toUtf8());
    static const testsupport::LogTail privateLog;
    return true;
}();

using Rgb = std::array<double, 3>;

inline Rgb rgb(double grey) { return {grey, grey, grey}; }

// What a float becomes once stored as a half: predictions start from the stored value.
inline double halfRounded(double v) { return double(qfloat16(float(v))); }
inline Rgb halfRounded(Rgb v) { return {halfRounded(v[0]), halfRounded(v[1]), halfRounded(v[2])}; }

// A half RGBA raster whose pixel (x, y) is f(x, y).
template <typename F> inline HalfImage halfImage(int w, int h, F f)
{
    std::vector<float> v;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (float c : f(x, y)) v.push_back(c);
    HalfImage img{w, h, std::vector<uint16_t>(v.size())};
    qFloatToFloat16(reinterpret_cast<qfloat16 *>(img.pixels.data()), v.data(), qsizetype(v.size()));
    return img;
}

// The tone curve computed independently on the CPU, in double precision.
inline std::array<double, 3> agx(std::array<double, 3> v, double contrast, double offset, double gamma)
{
    const double inset[3][3] = {{0.842479062253094, 0.0784335999999992, 0.0792237451477643},
                                {0.0423282422610123, 0.878468636469772, 0.0791661274605434},
                                {0.0423756549057051, 0.0784336, 0.879142973793104}};  // [row][col]
    const double outset[3][3] = {{1.19687900512017, -0.0980208811401368, -0.0990297440797205},
                                 {-0.0528968517574562, 1.15190312990417, -0.0989611768448433},
                                 {-0.0529716355144438, -0.0980434501171241, 1.15107367264116}};
    const double minEv = -12.47393, maxEv = 4.026069;
    std::array<double, 3> x{};
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c) x[r] += inset[r][c] * std::max(v[c], 1e-10);
    const double pivot = (std::log2(0.18) - minEv) / (maxEv - minEv);
    for (double &e : x) {
        e = (std::clamp(std::log2(e), minEv, maxEv) - minEv) / (maxEv - minEv);
        e = std::clamp((e - pivot) * contrast + pivot + offset, 0.0, 1.0);
        e = 15.5 * std::pow(e, 6) - 40.14 * std::pow(e, 5) + 31.96 * std::pow(e, 4) - 6.868 * std::pow(e, 3) +
            0.4298 * e * e + 0.1191 * e - 0.00232;
    }
    std::array<double, 3> out{};
    for (int r = 0; r < 3; ++r) {
        double s = 0;
        for (int c = 0; c < 3; ++c) s += outset[r][c] * x[c];
        out[r] = std::pow(std::clamp(s, 0.0, 1.0), gamma);
    }
    return out;
}

using testsupport::sumOver;

// Mean grey level of the image over `area`, all of it by default.
inline double meanGrey(const QImage &image, QRect area = {})
{
    if (area.isNull()) area = image.rect();
    return sumOver(area, [&](int x, int y) { return qGray(image.pixel(x, y)); }) /
           (double(area.width()) * area.height());
}

// Pixels where two images of one size differ by more than `tolerance` in some channel, alpha included.
inline int differingPixels(const QImage &a, const QImage &b, int tolerance = 0)
{
    return int(sumOver(a.rect(), [&](int x, int y) {
        const QRgb p = a.pixel(x, y), q = b.pixel(x, y);
        int d = 0;
        for (int shift = 0; shift < 32; shift += 8)
            d = std::max(d, std::abs(int(p >> shift & 0xff) - int(q >> shift & 0xff)));
        return d > tolerance;
    }));
}

// 8-bit RGB of a pixel of an ARGB32 readback.
inline std::array<int, 3> rgbAt(const QImage &image, int x, int y)
{
    QRgb p = image.pixel(x, y);
    return {qRed(p), qGreen(p), qBlue(p)};
}

inline SceneUniforms plainUniforms(int w, int h)
{
    SceneUniforms u;
    u.plateSize = {float(w), float(h), 1.0f / w, 1.0f / h};
    u.look = {0, 1, 0, 0};  // contrast 1, no vignette, no grain
    u.tone = {1, 0, 0, 0};  // gamma 1
    return u;
}

// Expects linear light `l` through the plain curve, within `tolerance` 8-bit steps (the dither alone moves one).
inline void expectLinear(const QImage &image, int x, int y, Rgb l, const std::string &what, int tolerance = 2)
{
    const Rgb want = agx(l, 1, 0, 1);
    const std::array<int, 3> got = rgbAt(image, x, y);
    for (int c = 0; c < 3; ++c)
        EXPECT_NEAR(got[c], want[c] * 255, tolerance) << what << " at " << x << "," << y << " channel " << c;
}

// Linear value of an 8-bit sRGB level (the art textures are sRGB and read linear).
inline double srgbToLinear(int v)
{
    const double c = v / 255.0;
    return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
}

// The linear grey whose 8-bit green through the plain curve is `level`, by bisection (monotonic for grey).
inline double greyForLevel(double level)
{
    double lo = 1e-6, hi = 64;
    for (int i = 0; i < 100; ++i) {
        const double mid = std::sqrt(lo * hi);
        (agx({mid, mid, mid}, 1, 0, 1)[1] * 255 < level ? lo : hi) = mid;
    }
    return std::sqrt(lo * hi);
}

// One renderer per test suite, shared by its tests.
class RendererTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { renderer = SceneRenderer::create().release(); }
    static void TearDownTestSuite() { delete std::exchange(renderer, nullptr); }
    void SetUp() override { ASSERT_NE(renderer, nullptr) << "no Vulkan renderer on this machine"; }

    static QImage render(const SceneUniforms &u, const SceneTextures &t, int w, int h)
    {
        OffscreenTarget target(renderer->vulkan(), uint32_t(w), uint32_t(h));
        renderer->draw(SceneRenderer::Pass{&target, u}, {}, std::nullopt, t);
        renderer->waitIdle();
        return target.readback();
    }
    // Lights the uniforms with one constant light of colour l, weight 1; returns it as stored (halves).
    static Rgb light(SceneUniforms &u, SceneTextures &t, Rgb l)
    {
        u.mixCount = 1;
        u.mixWeights = {1, 0, 0, 0};
        t.mixes[0] = constant({float(l[0]), float(l[1]), float(l[2]), 1});
        return halfRounded(l);
    }
    static TextureRef half(const HalfImage &image) { return TextureUpload::half(*renderer->vulkan(), image); }
    static TextureRef constant(std::array<float, 4> rgba, int w = 8, int h = 8)
    {
        return half(halfImage(w, h, [&](int, int) { return rgba; }));
    }
    static TextureRef art(const QImage &image) { return TextureUpload::art(*renderer->vulkan(), image); }
    static TextureRef art(QColor colour) { return art(testsupport::solidImage(colour, 4, 4)); }
    // An 8-bit mask or shadow of one value everywhere.
    static TextureRef grey(uint8_t value, int w = 4, int h = 4)
    {
        return TextureUpload::gray(*renderer->vulkan(), GrayImage{w, h, std::vector<uint8_t>(size_t(w) * h, value)});
    }

    static inline SceneRenderer *renderer = nullptr;
};

// Writes a half RGBA OpenEXR file (ZIP) whose pixel (x, y) is f(x, y).
template <typename F> inline void writeExr(const QString &path, int w, int h, F f)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    std::vector<Imf::Rgba> px;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const std::array<float, 4> v = f(x, y);
            px.emplace_back(v[0], v[1], v[2], v[3]);
        }
    Imf::RgbaOutputFile file(QFile::encodeName(path).constData(), w, h, Imf::WRITE_RGBA, 1, Imath::V2f(0, 0), 1,
                             Imf::INCREASING_Y, Imf::ZIP_COMPRESSION);
    file.setFrameBuffer(px.data(), 1, size_t(w));
    file.writePixels(h);
}

// Every texel of a shader-read-only texture as RGBA floats (alpha 1 for B10G11R11).
inline std::vector<std::array<float, 4>> readTexture(VulkanContext &ctx, const GpuTexture &t)
{
    const size_t bpp = t.format == VK_FORMAT_R16G16B16A16_SFLOAT ? 8 : 4;
    auto buffer = ctx.createHostBuffer(VkDeviceSize(t.width) * t.height * bpp, VK_BUFFER_USAGE_TRANSFER_DST_BIT);
    ctx.runOnce([&](VkCommandBuffer cmd) {
        transitionImage(cmd, t.image, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL);
        VkBufferImageCopy region{};
        region.imageSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
        region.imageExtent = {t.width, t.height, 1};
        vkCmdCopyImageToBuffer(cmd, t.image, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, buffer->buffer, 1, &region);
        transitionImage(cmd, t.image, VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL, VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL);
    });
    // An unsigned small float of B10G11R11: five bits of exponent over `m` of mantissa.
    const auto small = [](uint32_t bits, int m) {
        const uint32_t exponent = bits >> m;
        const float mantissa = float(bits & ((1u << m) - 1)) / float(1u << m);
        return exponent == 0 ? std::ldexp(mantissa, -14) : std::ldexp(1.0f + mantissa, int(exponent) - 15);
    };
    std::vector<std::array<float, 4>> out(size_t(t.width) * t.height);
    for (size_t i = 0; i < out.size(); ++i) {
        if (bpp == 8) {
            qFloatFromFloat16(out[i].data(), static_cast<const qfloat16 *>(buffer->mapped) + i * 4, 4);
        } else {
            const uint32_t v = static_cast<const uint32_t *>(buffer->mapped)[i];
            out[i] = {small(v & 0x7ff, 6), small(v >> 11 & 0x7ff, 6), small(v >> 22, 5), 1.0f};
        }
    }
    return out;
}

inline QString readLog() { return QString::fromUtf8(testsupport::readFile(Log::path())); }

}  // namespace rendertest
