#pragma once

#include <array>
#include <cstdint>
#include <vector>

// CPU rasters of plates: half-float RGBA bit patterns or 8-bit grey, rows top to bottom,
// no padding.
struct HalfImage {
    int64_t width = 0;
    int64_t height = 0;
    std::vector<uint16_t> pixels;  // width × height × 4: R, G, B, A
};

struct GrayImage {
    int64_t width = 0;
    int64_t height = 0;
    std::vector<uint8_t> pixels;  // width × height
};

// A crop and where it lies in plate pixels: x, y (origin included), width, height.
struct CroppedHalf {
    HalfImage image;
    std::array<float, 4> rect{};
};

struct CroppedGray {
    GrayImage image;
    std::array<float, 4> rect{};
};
