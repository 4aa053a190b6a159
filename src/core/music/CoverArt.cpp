#include "core/music/CoverArt.h"

#include <QColorSpace>
#include <algorithm>
#include <cmath>

namespace {

double linearFromSRGB(double c) { return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4); }

QImage toSRGB(const QImage &image)
{
    QImage out = image;
    if (out.colorSpace().isValid() && out.colorSpace() != QColorSpace::SRgb) out.convertToColorSpace(QColorSpace::SRgb);
    out = out.convertToFormat(QImage::Format_RGBA8888);
    out.setColorSpace(QColorSpace::SRgb);
    return out;
}

}  // namespace

CoverArt::CoverArt(TextureMaker maker, bool drawsPlaceholder)
    : maker(std::move(maker))
    , drawsPlaceholder(drawsPlaceholder)
{
    now_ = makeSide(QImage(), QImage());
    before = Side{nullptr, nullptr, now_.mean, now_.labelLuminance, now_.placeholder};
}

CoverArt::Side CoverArt::makeSide(const QImage &image, const QImage &label) const
{
    Side side;
    QImage cover;
    if (!image.isNull()) {
        cover = prepareCover(image);
    } else if (drawsPlaceholder) {
        cover = placeholderCover();
        side.placeholder = true;
    }
    if (cover.isNull()) return side;
    const QImage labelImage = prepareLabel(label.isNull() ? cover : label);
    side.mean = meanLinear(cover);
    side.labelLuminance = luminance(meanLinear(labelImage));
    if (maker) {
        side.cover = maker(cover);
        side.label = maker(labelImage);
    }
    return side;
}

void CoverArt::set(const QImage &image, const QImage &label, double time)
{
    const qint64 imageKey = image.isNull() ? 0 : image.cacheKey();
    const qint64 labelKey = label.isNull() ? 0 : label.cacheKey();
    if (imageKey == lastImageKey && labelKey == lastLabelKey) return;
    lastImageKey = imageKey;
    lastLabelKey = labelKey;
    // A change in the middle of a fade starts from what is current; the half-faded previous
    // cover is let go.
    before = std::move(now_);
    now_ = makeSide(image, label);
    start = time;
}

double CoverArt::fade(double time) const
{
    const double t = std::clamp((time - start) / fadeDuration, 0.0, 1.0);
    return t * t * (3 - 2 * t);
}

CoverArt::Color CoverArt::mean(double time) const
{
    const double s = fade(time);
    return {before.mean.r * (1 - s) + now_.mean.r * s, before.mean.g * (1 - s) + now_.mean.g * s,
            before.mean.b * (1 - s) + now_.mean.b * s};
}

double CoverArt::labelLuminance(double time) const
{
    const double s = fade(time);
    return before.labelLuminance * (1 - s) + now_.labelLuminance * s;
}

bool CoverArt::releasePrevious(double time)
{
    if (time - start < fadeDuration) return false;
    const bool had = before.cover || before.label;
    before.cover.reset();
    before.label.reset();
    return had;
}

QImage CoverArt::placeholderCover()
{
    // A plain dark sleeve with a faint ring, so an album without art still reads as a record. Large
    // and with soft edges: a framing close to the sleeve shows it several hundred pixels wide.
    constexpr int side = 256;
    QImage image(side, side, QImage::Format_RGBA8888);
    image.setColorSpace(QColorSpace::SRgb);
    const double centre = (side - 1) / 2.0;
    const auto inside = [](double d) { return std::clamp(d + 0.5, 0.0, 1.0); };  // d in pixels
    for (int y = 0; y < side; ++y) {
        uchar *row = image.scanLine(y);
        for (int x = 0; x < side; ++x) {
            const double r = std::hypot(x - centre, y - centre);
            const double ring = std::min(inside(r - 0.55 * side / 2), inside(0.62 * side / 2 - r));
            const double hole = inside(0.06 * side / 2 - r);
            const auto mix = [&](int base, int ringValue, int holeValue) {
                const double v = base + (ringValue - base) * ring + (holeValue - base) * hole;
                return uchar(std::lround(v));
            };
            uchar *px = row + 4 * x;
            px[0] = mix(0x2a, 0x6b, 0x14);
            px[1] = mix(0x26, 0x5a, 0x12);
            px[2] = mix(0x22, 0x48, 0x10);
            px[3] = 0xff;
        }
    }
    return image;
}

QImage CoverArt::prepareCover(const QImage &image)
{
    QImage out = toSRGB(image);
    if (std::max(out.width(), out.height()) > maxCoverSide)
        out = out.scaled(maxCoverSide, maxCoverSide, Qt::KeepAspectRatio, Qt::SmoothTransformation);
    return out;
}

QImage CoverArt::prepareLabel(const QImage &image)
{
    const int side = std::min(image.width(), image.height());
    const QImage square = image.copy((image.width() - side) / 2, (image.height() - side) / 2, side, side);
    QImage out = toSRGB(square).scaled(labelSide, labelSide, Qt::IgnoreAspectRatio, Qt::SmoothTransformation);
    out.setColorSpace(QColorSpace::SRgb);
    return out;
}

CoverArt::Color CoverArt::meanLinear(const QImage &image)
{
    if (image.isNull()) return {};
    // Point samples keep the average linear: averaging in sRGB first would darken it.
    QImage samples = toSRGB(image);
    if (samples.width() > 128 || samples.height() > 128)
        samples = samples.scaled(std::min(samples.width(), 128), std::min(samples.height(), 128), Qt::IgnoreAspectRatio,
                                 Qt::FastTransformation);
    double r = 0, g = 0, b = 0;
    for (int y = 0; y < samples.height(); ++y) {
        const uchar *row = samples.constScanLine(y);
        for (int x = 0; x < samples.width(); ++x) {
            r += linearFromSRGB(row[4 * x] / 255.0);
            g += linearFromSRGB(row[4 * x + 1] / 255.0);
            b += linearFromSRGB(row[4 * x + 2] / 255.0);
        }
    }
    const double n = double(samples.width()) * samples.height();
    return {r / n, g / n, b / n};
}

double CoverArt::luminance(const Color &c) { return 0.2126 * c.r + 0.7152 * c.g + 0.0722 * c.b; }
