#pragma once

// Shared by the GPU tests: they run on Mesa's software device (lavapipe) so that pixels are
// the same on every machine, and they read pixels back.

#include "core/PlateImages.h"
#include "render/SceneRenderer.h"
#include "render/TextureUpload.h"

#include <QDir>
#include <QFileInfo>
#include <QFloat16>
#include <QImage>
#include <QTemporaryDir>
#include <array>
#include <cmath>
#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace rendertest {

// Points the Vulkan loader at lavapipe unless the caller already chose a driver, and the log
// at a private folder. Call before the first renderer and the first log line.
inline void useLavapipeAndPrivateLog() {
    static QTemporaryDir state;
    if (!qEnvironmentVariableIsSet("VK_ICD_FILENAMES")) {
        for (const char *dir : {"/usr/share/vulkan/icd.d", "/etc/vulkan/icd.d"}) {
            const QFileInfoList found = QDir(dir).entryInfoList({"lvp_icd*.json"}, QDir::Files);
            if (!found.isEmpty()) {
                qputenv("VK_ICD_FILENAMES", found.first().absoluteFilePath().toUtf8());
                break;
            }
        }
    }
    if (!qEnvironmentVariableIsSet("TURNELO_TEST_KEEP_STATE")) qputenv("XDG_STATE_HOME", state.path().toUtf8());
}

inline uint16_t toHalf(float v) {
    qfloat16 h(v);
    uint16_t bits;
    std::memcpy(&bits, &h, 2);
    return bits;
}

inline HalfImage constantHalf(int w, int h, std::array<float, 4> rgba) {
    HalfImage img;
    img.width = w;
    img.height = h;
    img.pixels.resize(size_t(w) * h * 4);
    for (size_t i = 0; i < size_t(w) * h; ++i)
        for (int c = 0; c < 4; ++c) img.pixels[i * 4 + c] = toHalf(rgba[c]);
    return img;
}

// The tone curve computed independently on the CPU, in double precision.
inline std::array<double, 3> agx(std::array<double, 3> v, double contrast, double offset, double gamma) {
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

// 8-bit RGB of a pixel of an ARGB32 readback.
inline std::array<int, 3> rgbAt(const QImage &image, int x, int y) {
    QRgb p = image.pixel(x, y);
    return {qRed(p), qGreen(p), qBlue(p)};
}

inline SceneUniforms plainUniforms(int w, int h) {
    SceneUniforms u;
    u.plateSize = {float(w), float(h), 1.0f / w, 1.0f / h};
    u.look = {0, 1, 0, 0};  // contrast 1, no vignette, no grain
    u.tone = {1, 0, 0, 0};  // gamma 1
    return u;
}

}  // namespace rendertest
