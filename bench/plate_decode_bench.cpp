// Plate decoding and crop scanning, each beside a plain memory copy of the same decoded bytes:
// the copy is the floor a decoder cannot beat, so the ratio says how far from it we are.
// Prints figures and ratios; asserts nothing.
#include "core/scene/ImageDecoder.h"

#include <ImfHeader.h>
#include <ImfRgbaFile.h>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <vector>

namespace {

// Median wall time of `runs` calls, in seconds.
double medianSeconds(int runs, const std::function<void()> &work)
{
    std::vector<double> times;
    for (int i = 0; i < runs; ++i) {
        QElapsedTimer t;
        t.start();
        work();
        times.push_back(t.nsecsElapsed() / 1e9);
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

// A plate that compresses like a rendered one: smooth gradients with noise, alpha mostly empty
// except for a sprite-sized block, so the crop has real work.
void writePlate(const QString &path, int w, int h)
{
    std::vector<Imf::Rgba> px(size_t(w) * h);
    uint32_t seed = 12345;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            seed = seed * 1664525u + 1013904223u;
            const float n = float(seed >> 8) / float(1 << 24) * 0.02f;
            const bool sprite = x > w / 3 && x < w / 2 && y > h / 4 && y < h / 2;
            px[size_t(y) * w + x] = Imf::Rgba(float(x) / w + n, float(y) / h + n, 0.3f + n, sprite ? 1.0f : 0.0f);
        }
    Imf::RgbaOutputFile file(QFile::encodeName(path).constData(),
                             Imf::Header(w, h, 1, Imath::V2f(0, 0), 1, Imf::INCREASING_Y, Imf::ZIP_COMPRESSION),
                             Imf::WRITE_RGBA);
    file.setFrameBuffer(px.data(), 1, w);
    file.writePixels(h);
}

void measure(int w, int h, const QString &dir)
{
    const QString path = dir + QStringLiteral("/plate_%1x%2.exr").arg(w).arg(h);
    writePlate(path, w, h);
    const double mb = double(w) * h * 8 / 1e6;
    const int runs = w > 2000 ? 5 : 9;

    HalfImage image;
    const double decode = medianSeconds(runs, [&] { image = ImageDecoder::decodeEXR(path); });
    std::vector<uint16_t> copy(image.pixels.size());
    const double memcopy = medianSeconds(
        runs, [&] { std::memcpy(copy.data(), image.pixels.data(), image.pixels.size() * sizeof(uint16_t)); });
    std::optional<CroppedHalf> crop;
    const double scan = medianSeconds(runs, [&] { crop = ImageDecoder::cropSprite(image); });

    std::printf("%4dx%-4d  %6.1f MB decoded\n", w, h, mb);
    std::printf("  decodeEXR (ZIP)   %8.1f ms  %8.0f MB/s   %6.1fx a memcpy\n", decode * 1e3, mb / decode,
                decode / memcopy);
    std::printf("  cropSprite scan   %8.1f ms  %8.0f MB/s   %6.1fx a memcpy (kept %.0fx%.0f)\n", scan * 1e3, mb / scan,
                scan / memcopy, crop ? crop->rect[2] : 0.f, crop ? crop->rect[3] : 0.f);
    std::printf("  memcpy            %8.1f ms  %8.0f MB/s\n", memcopy * 1e3, mb / memcopy);
}

}  // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    measure(1920, 1080, dir.path());
    measure(3840, 2160, dir.path());
    return 0;
}
