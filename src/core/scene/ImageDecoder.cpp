#include "core/scene/ImageDecoder.h"

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <ImfIO.h>
#include <ImfThreading.h>
#include <openexr.h>
#include <QThread>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QImageReader>
#include <algorithm>
#include <cstring>

namespace ImageDecoder {

namespace {

QString unreadable(const QString &path)
{
    return QStringLiteral("ImageIO não lê ") + QFileInfo(path).fileName() +
           QStringLiteral(" (arquivo danificado ou formato desconhecido)");
}

void requireReadable(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw SceneError(SceneError::Kind::badPlate, QStringLiteral("não achei ") + path);
}

// No plate is wider or taller than a GPU texture may be; a header that says more is damage, and
// believing it would mean allocating gigabytes.
constexpr int64_t maxSide = 16384;

// Nor does any hold more pixels than an 8K frame: a small file may claim a huge display window,
// and every crop scans all of it.
constexpr int64_t maxPixels = int64_t(7680) * 4320;

// Both OpenEXR readers' boxes: inclusive corners.
template <typename Box> bool fits(const Box &b)
{
    const int64_t w = int64_t(b.max.x) - b.min.x + 1, h = int64_t(b.max.y) - b.min.y + 1;
    return w <= maxSide && h <= maxSide && w * h <= maxPixels;
}

// Reads the header alone and checks its windows, before the full reader sizes its buffers and
// tables from them. A header the reader cannot parse is left for the full reader to report.
bool windowsFit(const QByteArray &native)
{
    exr_context_initializer_t init = EXR_DEFAULT_CONTEXT_INITIALIZER;
    init.flags |= EXR_CONTEXT_FLAG_SILENT_HEADER_PARSE;
    init.error_handler_fn = [](exr_const_context_t, exr_result_t, const char *) {};
    exr_context_t context = nullptr;
    bool ok = true;
    if (exr_start_read(&context, native.constData(), &init) == EXR_ERR_SUCCESS) {
        exr_attr_box2i_t data{}, display{};
        if (exr_get_data_window(context, 0, &data) == EXR_ERR_SUCCESS &&
            exr_get_display_window(context, 0, &display) == EXR_ERR_SUCCESS)
            ok = fits(data) && fits(display);
    }
    exr_finish(&context);
    return ok;
}

}  // namespace

HalfImage decodeEXR(const QString &path)
{
    requireReadable(path);
    // ZIP, PIZ and DWA decompress in line blocks that OpenEXR spreads over its own pool.
    static const bool pool = [] {
        Imf::setGlobalThreadCount(std::max(1, QThread::idealThreadCount()));
        return true;
    }();
    (void)pool;
    const QByteArray native = QFile::encodeName(path);
    if (!windowsFit(native)) throw SceneError(SceneError::Kind::badPlate, unreadable(path));
    try {
        Imf::InputFile file(native.constData());
        const Imf::Header &header = file.header();
        const Imf::ChannelList &channels = header.channels();
        const auto isHalf = [&](const char *name) {
            const Imf::Channel *c = channels.findChannel(name);
            return c && c->type == Imf::HALF && c->xSampling == 1 && c->ySampling == 1;
        };
        const bool hasAlpha = channels.findChannel("A") != nullptr;
        if (!isHalf("R") || !isHalf("G") || !isHalf("B") || (hasAlpha && !isHalf("A")))
            throw SceneError(SceneError::Kind::badPlate,
                             QFileInfo(path).fileName() + QStringLiteral(": precisa ser EXR half RGB(A)"));

        // Plates are addressed in plate pixels: the raster has the display window's size and the
        // data window sits where it says; what the data window does not cover stays zero, and
        // what lies outside the display window is dropped.
        const Imath::Box2i display = header.displayWindow();
        const Imath::Box2i data = header.dataWindow();
        HalfImage image;
        image.width = int64_t(display.max.x) - display.min.x + 1;
        image.height = int64_t(display.max.y) - display.min.y + 1;
        // The header check above cannot speak for a header only this reader accepts.
        if (image.width <= 0 || image.height <= 0 || !fits(display) || data.max.x < data.min.x ||
            data.max.y < data.min.y || !fits(data))
            throw SceneError(SceneError::Kind::badPlate, unreadable(path));
        image.pixels.assign(size_t(image.width) * size_t(image.height) * 4, 0);

        const Imath::Box2i kept(Imath::V2i(std::max(data.min.x, display.min.x), std::max(data.min.y, display.min.y)),
                                Imath::V2i(std::min(data.max.x, display.max.x), std::min(data.max.y, display.max.y)));
        if (kept.isEmpty()) return image;
        // OpenEXR fills whole data-window rows, so rows wider than the display window go through
        // a buffer of their own; otherwise they land in the raster directly.
        const bool inside = kept.min.x == data.min.x && kept.max.x == data.max.x;
        const int64_t rowPixels = inside ? image.width : int64_t(data.max.x) - data.min.x + 1;
        const int64_t rows = int64_t(kept.max.y) - kept.min.y + 1;
        std::vector<uint16_t> wide;
        if (!inside) wide.resize(size_t(rowPixels) * size_t(rows) * 4);
        uint16_t *target = inside ? image.pixels.data() : wide.data();
        // The pixel (originX, originY) of the file's coordinates lies at the buffer's first element.
        const int64_t originX = inside ? display.min.x : data.min.x;
        const int64_t originY = inside ? display.min.y : kept.min.y;

        const size_t xStride = 4 * sizeof(uint16_t);
        const size_t yStride = xStride * size_t(rowPixels);
        char *base = reinterpret_cast<char *>(target) - ptrdiff_t(originX) * ptrdiff_t(xStride) -
                     ptrdiff_t(originY) * ptrdiff_t(yStride);
        Imf::FrameBuffer frame;
        const char *names[] = {"R", "G", "B", "A"};
        for (int c = 0; c < 4; ++c)
            frame.insert(names[c], Imf::Slice(Imf::HALF, base + c * sizeof(uint16_t), xStride, yStride, 1, 1,
                                              c == 3 ? 1.0 : 0.0));
        file.setFrameBuffer(frame);
        file.readPixels(kept.min.y, kept.max.y);
        if (!inside) {
            const int64_t width = int64_t(kept.max.x) - kept.min.x + 1;
            for (int64_t y = 0; y < rows; ++y)
                std::copy_n(wide.begin() + (y * rowPixels + (kept.min.x - data.min.x)) * 4, width * 4,
                            image.pixels.begin() +
                                ((kept.min.y - display.min.y + y) * image.width + (kept.min.x - display.min.x)) * 4);
        }
        return image;
    } catch (const SceneError &) {
        throw;
    } catch (const std::exception &) {
        // Not an EXR, truncated, or a compression newer than this reader.
        throw SceneError(SceneError::Kind::badPlate, unreadable(path));
    }
}

GrayImage decodeGray(const QString &path)
{
    requireReadable(path);
    QImageReader reader(path);
    QImage source = reader.read();
    if (source.isNull()) throw SceneError(SceneError::Kind::badPlate, unreadable(path));
    if (source.format() != QImage::Format_Grayscale8) source = source.convertToFormat(QImage::Format_Grayscale8);
    GrayImage image;
    image.width = source.width();
    image.height = source.height();
    image.pixels.resize(size_t(image.width) * size_t(image.height));
    // QImage pads rows to 32 bits: copy row by row.
    for (int y = 0; y < source.height(); ++y)
        std::memcpy(image.pixels.data() + size_t(y) * size_t(image.width), source.constScanLine(y),
                    size_t(image.width));
    return image;
}

namespace {

struct Box {
    int64_t x0, y0, x1, y1;
};

// The content box widened by one pixel, or none when no pixel counts.
template <typename Counts> std::optional<Box> contentBox(int64_t width, int64_t height, Counts counts)
{
    int64_t minX = width, minY = height, maxX = -1, maxY = -1;
    for (int64_t y = 0; y < height; ++y) {
        int64_t first = -1, last = -1;
        for (int64_t x = 0; x < width; ++x) {
            if (counts(y * width + x)) {
                if (first < 0) first = x;
                last = x;
            }
        }
        if (first >= 0) {
            minX = std::min(minX, first);
            maxX = std::max(maxX, last);
            minY = std::min(minY, y);
            maxY = y;
        }
    }
    if (maxX < 0) return std::nullopt;
    return Box{std::max<int64_t>(minX - 1, 0), std::max<int64_t>(minY - 1, 0), std::min(maxX + 1, width - 1),
               std::min(maxY + 1, height - 1)};
}

template <typename Image, size_t Channels> Image cut(const Image &image, const Box &box)
{
    Image out;
    out.width = box.x1 - box.x0 + 1;
    out.height = box.y1 - box.y0 + 1;
    out.pixels.resize(size_t(out.width) * size_t(out.height) * Channels);
    const size_t row = size_t(out.width) * Channels;
    for (int64_t y = 0; y < out.height; ++y)
        std::copy_n(image.pixels.begin() + ((box.y0 + y) * image.width + box.x0) * Channels, row,
                    out.pixels.begin() + y * row);
    return out;
}

std::array<float, 4> rectOf(const Box &box, Origin origin)
{
    return {origin.x + float(box.x0), origin.y + float(box.y0), float(box.x1 - box.x0 + 1), float(box.y1 - box.y0 + 1)};
}

// Bit patterns compared as unsigned numbers: negatives and NaN never count, +infinity does.
bool inRange(uint16_t bits, uint16_t low) { return bits >= low && bits <= 0x7C00; }

template <typename Counts> std::optional<CroppedHalf> cropHalf(const HalfImage &image, Origin origin, Counts counts)
{
    const auto box = contentBox(image.width, image.height, counts);
    if (!box) return std::nullopt;
    return CroppedHalf{cut<HalfImage, 4>(image, *box), rectOf(*box, origin)};
}

template <typename Counts> std::optional<CroppedGray> cropGray(const GrayImage &image, Origin origin, Counts counts)
{
    const auto box = contentBox(image.width, image.height, counts);
    if (!box) return std::nullopt;
    return CroppedGray{cut<GrayImage, 1>(image, *box), rectOf(*box, origin)};
}

}  // namespace

std::optional<CroppedHalf> cropSprite(const HalfImage &image, Origin origin)
{
    const uint16_t *p = image.pixels.data();
    return cropHalf(image, origin, [p](int64_t i) { return inRange(p[i * 4 + 3], 0x181A); });
}

std::optional<CroppedHalf> cropByChannel(const HalfImage &image, int channel, Origin origin)
{
    if (channel < 0 || channel > 3) return std::nullopt;
    const uint16_t *p = image.pixels.data();
    return cropHalf(image, origin, [p, channel](int64_t i) { return inRange(p[i * 4 + channel], 0x141A); });
}

std::optional<CroppedHalf> cropAdditive(const HalfImage &image, Origin origin)
{
    const uint16_t *p = image.pixels.data();
    return cropHalf(image, origin, [p](int64_t i) {
        const uint16_t *px = p + i * 4;
        return inRange(px[0], 0x101A) || inRange(px[1], 0x101A) || inRange(px[2], 0x101A);
    });
}

std::optional<CroppedGray> cropShadow(const GrayImage &image, Origin origin)
{
    const uint8_t *p = image.pixels.data();
    return cropGray(image, origin, [p](int64_t i) { return p[i] < 252; });
}

std::optional<CroppedGray> cropMask(const GrayImage &image)
{
    const uint8_t *p = image.pixels.data();
    return cropGray(image, {}, [p](int64_t i) { return p[i] != 0; });
}

}  // namespace ImageDecoder
