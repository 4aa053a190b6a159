#include "core/scene/ImageDecoder.h"
#include "TestSupport.h"

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfOutputFile.h>
#include <Imath/half.h>
#include <QImage>
#include <gtest/gtest.h>
#include <cmath>
#include <optional>

using namespace ImageDecoder;

namespace {

// A half (or float) RGB(A) OpenEXR file whose pixel (x, y), in the file's own coordinates, is value(x, y, channel).
struct Exr {
    Imath::Box2i display{{0, 0}, {3, 2}};
    std::optional<Imath::Box2i> data{};
    Imf::PixelType type = Imf::HALF;
    Imf::Compression compression = Imf::ZIP_COMPRESSION;
    bool alpha = true;
    std::function<float(int x, int y, int c)> value = [](int x, int y, int c) { return x + 10 * y + 0.25f * c; };

    void write(const QString &path) const
    {
        const Imath::Box2i box = data.value_or(display);
        Imf::Header header(display, box);
        header.compression() = compression;
        const char *names[] = {"R", "G", "B", "A"};
        const int channels = alpha ? 4 : 3;
        for (int c = 0; c < channels; ++c) header.channels().insert(names[c], Imf::Channel(type));
        const int width = box.max.x - box.min.x + 1, height = box.max.y - box.min.y + 1;
        std::vector<float> floats(size_t(width) * height * 4);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                for (int c = 0; c < 4; ++c) floats[(y * width + x) * 4 + c] = value(box.min.x + x, box.min.y + y, c);
        std::vector<half> halves(floats.begin(), floats.end());
        const size_t px = type == Imf::HALF ? sizeof(half) : sizeof(float);
        char *first =
            type == Imf::HALF ? reinterpret_cast<char *>(halves.data()) : reinterpret_cast<char *>(floats.data());
        // Slices are addressed in the file's coordinates.
        char *origin = first - (ptrdiff_t(box.min.x) + ptrdiff_t(box.min.y) * width) * ptrdiff_t(px * 4);
        Imf::FrameBuffer fb;
        for (int c = 0; c < channels; ++c)
            fb.insert(names[c], Imf::Slice(type, origin + c * px, px * 4, px * 4 * width));
        Imf::OutputFile file(QFile::encodeName(path).constData(), header);
        file.setFrameBuffer(fb);
        file.writePixels(height);
    }
    HalfImage decoded(const QString &path) const
    {
        write(path);
        return decodeEXR(path);
    }
};

uint16_t bits(float f) { return half(f).bits(); }

HalfImage alphaImage(int w, int h, float background, std::vector<std::tuple<int, int, float>> marks, int channel = 3)
{
    HalfImage image{w, h, std::vector<uint16_t>(size_t(w) * h * 4, 0)};
    for (int i = 0; i < w * h; ++i) image.pixels[i * 4 + channel] = bits(background);
    for (const auto &[x, y, v] : marks) image.pixels[(y * w + x) * 4 + channel] = bits(v);
    return image;
}

std::string failureOf(const std::function<void()> &f)
{
    try {
        f();
    } catch (const SceneError &e) {
        return e.what();
    }
    return {};
}

}  // namespace

TEST(ImageDecoder, DecodesHalfRgbaAndRgbInEveryCompression)
{
    QTemporaryDir dir;
    const HalfImage a = Exr().decoded(dir.filePath("rgba.exr"));
    ASSERT_EQ(std::tuple(a.width, a.height, a.pixels.size()), std::tuple(4, 3, 4u * 3u * 4u));
    // Row 2, column 3, channel B: 3 + 20 + 0.5, bit for bit, top row first.
    EXPECT_EQ(a.pixels[(2 * 4 + 3) * 4 + 2], bits(23.5f));
    EXPECT_EQ(a.pixels[3], bits(0.75f));

    const HalfImage b = Exr{.compression = Imf::PIZ_COMPRESSION, .alpha = false}.decoded(dir.filePath("rgb.exr"));
    EXPECT_EQ(b.pixels[(1 * 4 + 2) * 4 + 0], bits(12.0f));
    for (size_t i = 3; i < b.pixels.size(); i += 4) ASSERT_EQ(b.pixels[i], 0x3C00);

    // DWA is lossy on colour and lossless on alpha.
    for (const auto compression : {Imf::DWAA_COMPRESSION, Imf::DWAB_COMPRESSION}) {
        const auto value = [](int x, int y, int c) {
            return c == 3 ? 0.003f * float(x * y % 97) : 0.01f * (x + y) + 0.1f * c;
        };
        const HalfImage d = Exr{.display = {{0, 0}, {39, 33}}, .compression = compression, .value = value}.decoded(
            dir.filePath("dwa.exr"));
        ASSERT_EQ(std::tuple(d.width, d.height), std::tuple(40, 34));
        const size_t at = (20 * 40 + 30) * 4;
        EXPECT_NEAR(float(half(half::FromBits, d.pixels[at + 1])), 0.6f, 0.02f);
        for (int y = 0; y < 34; ++y)
            for (int x = 0; x < 40; ++x)
                ASSERT_EQ(d.pixels[(y * 40 + x) * 4 + 3], bits(0.003f * float(x * y % 97))) << x << "," << y;
    }
}

TEST(ImageDecoder, DataWindowIsPlacedInTheDisplayWindow)
{
    QTemporaryDir dir;
    // A 64×64 plate whose file holds only (16, 24)–(47, 55), opaque at (30, 40).
    const auto opaqueAt3040 = [](int x, int y, int c) { return c == 3 ? float(x == 30 && y == 40) : 2.0f; };
    const HalfImage a =
        Exr{.display = {{0, 0}, {63, 63}}, .data = Imath::Box2i{{16, 24}, {47, 55}}, .value = opaqueAt3040}.decoded(
            dir.filePath("inner.exr"));
    ASSERT_EQ(std::tuple(a.width, a.height), std::tuple(64, 64));
    EXPECT_EQ(cropSprite(a).value().rect, (std::array<float, 4>{29, 39, 3, 3}));
    EXPECT_EQ(a.pixels[(24 * 64 + 16) * 4], bits(2.0f));
    EXPECT_EQ(a.pixels[(55 * 64 + 47) * 4], bits(2.0f));
    // Outside the data window: transparent black, all four halves zero.
    for (const auto &[x, y] : {std::pair{15, 30}, {48, 30}, {20, 23}, {20, 56}, {0, 0}, {63, 63}})
        for (int c = 0; c < 4; ++c) ASSERT_EQ(a.pixels[(y * 64 + x) * 4 + c], 0) << x << "," << y << " channel " << c;

    // A data window reaching past the display window on three sides, of an RGB file: what lies
    // outside is dropped, and only the covered pixels gain an opaque alpha.
    const auto position = [](int x, int y, int) { return float(x + 100 * y); };
    const HalfImage b = Exr{.display = {{0, 0}, {31, 15}},
                            .data = Imath::Box2i{{-5, 10}, {40, 20}},
                            .compression = Imf::PIZ_COMPRESSION,
                            .alpha = false,
                            .value = position}
                            .decoded(dir.filePath("outer.exr"));
    ASSERT_EQ(std::tuple(b.width, b.height), std::tuple(32, 16));
    EXPECT_EQ(b.pixels[(10 * 32 + 0) * 4], bits(1000.0f));
    EXPECT_EQ(b.pixels[(15 * 32 + 31) * 4], bits(1531.0f));
    EXPECT_EQ(cropByChannel(b, 3).value().rect, (std::array<float, 4>{0, 9, 32, 7}));
    // Past the right side alone, rows are still wider than the raster: none spills into the next.
    const HalfImage c =
        Exr{.display = {{0, 0}, {31, 15}}, .data = Imath::Box2i{{4, 0}, {40, 15}}, .alpha = false, .value = position}
            .decoded(dir.filePath("right.exr"));
    EXPECT_EQ(c.pixels[(1 * 32 + 0) * 4], 0);
    EXPECT_EQ(c.pixels[(1 * 32 + 4) * 4], bits(104.0f));
}

TEST(ImageDecoder, FailureTexts)
{
    QTemporaryDir dir;
    const QString missing = dir.filePath("nope.exr");
    EXPECT_EQ(failureOf([&] { decodeEXR(missing); }), ("não achei " + missing).toStdString());
    EXPECT_EQ(failureOf([&] { decodeGray(missing); }), ("não achei " + missing).toStdString());

    Exr{.type = Imf::FLOAT}.write(dir.filePath("float.exr"));
    EXPECT_EQ(failureOf([&] { decodeEXR(dir.filePath("float.exr")); }), "float.exr: precisa ser EXR half RGB(A)");

    Exr{.display = {{0, 0}, {63, 63}}}.write(dir.filePath("good.exr"));
    const QByteArray whole = testsupport::readFile(dir.filePath("good.exr"));
    testsupport::writeFile(dir.filePath("cut.exr"), whole.left(whole.size() / 2));
    testsupport::writeFile(dir.filePath("junk.exr"), QByteArray(500, 'x'));
    testsupport::writeFile(dir.filePath("junk.png"), QByteArray("\x89PNG\r\n\x1a\n garbage"));
    // Rows wider than any texture are damage, not a reason to allocate for them.
    Exr{.data = Imath::Box2i{{-20000, 0}, {20000, 0}}}.write(dir.filePath("overscan.exr"));
    // So is a small file claiming more pixels than an 8K frame, each side within bounds.
    Exr{.display = {{0, 0}, {8999, 7999}}, .data = Imath::Box2i{{0, 0}, {31, 31}}}.write(dir.filePath("huge.exr"));
    for (const QString file : {"cut.exr", "junk.exr", "overscan.exr", "huge.exr", "junk.png"}) {
        const auto decode = [&] {
            file.endsWith(".png") ? void(decodeGray(dir.filePath(file))) : void(decodeEXR(dir.filePath(file)));
        };
        EXPECT_EQ(failureOf(decode),
                  "ImageIO não lê " + file.toStdString() + " (arquivo danificado ou formato desconhecido)");
    }
}

TEST(ImageDecoder, GreyMasksFromGreyAndColourPngs)
{
    QTemporaryDir dir;
    // Width 5 makes QImage pad every row to 8 bytes.
    QImage grey(5, 2, QImage::Format_Grayscale8);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 5; ++x) grey.scanLine(y)[x] = uchar(x * 50 + y);
    ASSERT_TRUE(grey.save(dir.filePath("grey.png")));
    const GrayImage g = decodeGray(dir.filePath("grey.png"));
    ASSERT_EQ(std::tuple(g.width, g.pixels.size()), std::tuple(5, 10u));
    EXPECT_EQ(g.pixels[4], 200);
    EXPECT_EQ(g.pixels[5 + 4], 201);

    QImage colour(3, 1, QImage::Format_RGB888);
    for (int x = 0; const QRgb rgb : {qRgb(255, 255, 255), qRgb(0, 0, 0), qRgb(0, 255, 0)})
        colour.setPixel(x++, 0, rgb);
    ASSERT_TRUE(colour.save(dir.filePath("colour.png")));
    const GrayImage c = decodeGray(dir.filePath("colour.png"));
    EXPECT_EQ(c.pixels[0], 255);
    EXPECT_EQ(c.pixels[1], 0);
    EXPECT_GT(c.pixels[2], 100);  // green is bright
    EXPECT_LT(c.pixels[2], 255);
}

TEST(ImageDecoder, CropThresholdsPerKindAndBoxes)
{
    // Render noise of a thousandth widens no box; alpha makes a sprite, colour an additive one.
    const auto faint = [](float v, int channel) { return alphaImage(8, 8, 0, {{4, 3, v}}, channel); };
    EXPECT_FALSE(cropSprite(faint(0.001f, 3)).has_value());
    EXPECT_TRUE(cropSprite(faint(0.01f, 3)).has_value());
    EXPECT_FALSE(cropSprite(faint(0.01f, 0)).has_value());
    EXPECT_TRUE(cropAdditive(faint(0.01f, 2)).has_value());
    EXPECT_FALSE(cropAdditive(faint(1.0f, 3)).has_value());
    EXPECT_TRUE(cropByChannel(faint(0.01f, 1), 1).has_value());
    EXPECT_FALSE(cropByChannel(faint(0.01f, 1), 2).has_value());
    // No channel before the first or after the last, where a neighbour's would be read.
    EXPECT_FALSE(cropByChannel(faint(0.01f, 3), -1).has_value());
    EXPECT_FALSE(cropByChannel(faint(0.01f, 0), 4).has_value());
    // Damaged values count for nothing.
    EXPECT_FALSE(cropSprite(alphaImage(8, 8, -1.0f, {})).has_value());
    EXPECT_FALSE(cropSprite(alphaImage(8, 8, std::nanf(""), {})).has_value());

    // The box has a one-pixel margin, is clamped to the image and placed at the origin.
    HalfImage image = alphaImage(10, 8, 0, {{4, 3, 1.0f}, {6, 5, 0.5f}});
    image.pixels[(5 * 10 + 6) * 4 + 0] = bits(7.0f);
    const auto crop = cropSprite(image, {100, 200});
    ASSERT_TRUE(crop);
    EXPECT_EQ(crop->rect, (std::array<float, 4>{103, 202, 5, 5}));
    ASSERT_EQ(std::tuple(crop->image.width, crop->image.height), std::tuple(5, 5));
    EXPECT_EQ(crop->image.pixels[(3 * 5 + 3) * 4 + 0], bits(7.0f));  // (6,5) → (3,3)

    EXPECT_EQ(cropSprite(alphaImage(10, 8, 0, {{0, 0, 1.0f}, {9, 7, 1.0f}})).value().rect,
              (std::array<float, 4>{0, 0, 10, 8}));

    GrayImage shadow{6, 4, std::vector<uint8_t>(24, 255)};
    shadow.pixels[1 * 6 + 5] = 251;
    shadow.pixels[2 * 6 + 4] = 252;  // 252 is not darker than the threshold
    const auto s = cropShadow(shadow, {10, 10});
    ASSERT_TRUE(s);
    EXPECT_EQ(s->rect, (std::array<float, 4>{14, 10, 2, 3}));
    EXPECT_EQ(s->image.pixels[1 * 2 + 1], 251);

    GrayImage mask{6, 4, std::vector<uint8_t>(24, 0)};
    EXPECT_FALSE(cropMask(mask).has_value());
    mask.pixels[3 * 6 + 0] = 1;
    EXPECT_EQ(cropMask(mask).value().rect, (std::array<float, 4>{0, 2, 2, 2}));
}
