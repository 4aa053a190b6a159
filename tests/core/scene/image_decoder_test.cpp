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
#include <limits>

using namespace ImageDecoder;

namespace {

struct Exr {
    int width = 4, height = 3;
    Imf::PixelType type = Imf::HALF;
    Imf::Compression compression = Imf::ZIP_COMPRESSION;
    bool alpha = true;
    std::function<float(int x, int y, int c)> value = [](int x, int y, int c) { return x + 10 * y + 0.25f * c; };

    void write(const QString &path) const
    {
        Imf::Header header(width, height);
        header.compression() = compression;
        const char *names[] = {"R", "G", "B", "A"};
        const int channels = alpha ? 4 : 3;
        for (int c = 0; c < channels; ++c)
            header.channels().insert(names[c], Imf::Channel(type));
        std::vector<half> halves(size_t(width) * height * 4);
        std::vector<float> floats(halves.size());
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                for (int c = 0; c < 4; ++c) {
                    halves[(y * width + x) * 4 + c] = half(value(x, y, c));
                    floats[(y * width + x) * 4 + c] = value(x, y, c);
                }
        Imf::FrameBuffer fb;
        for (int c = 0; c < channels; ++c) {
            char *base = type == Imf::HALF ? reinterpret_cast<char *>(halves.data() + c)
                                           : reinterpret_cast<char *>(floats.data() + c);
            const size_t px = type == Imf::HALF ? sizeof(half) : sizeof(float);
            fb.insert(names[c], Imf::Slice(type, base, px * 4, px * 4 * width));
        }
        Imf::OutputFile file(QFile::encodeName(path).constData(), header);
        file.setFrameBuffer(fb);
        file.writePixels(height);
    }
};

uint16_t bits(float f) { return half(f).bits(); }

HalfImage alphaImage(int w, int h, float background, std::vector<std::tuple<int, int, float>> marks, int channel = 3)
{
    HalfImage image{w, h, std::vector<uint16_t>(size_t(w) * h * 4, 0)};
    for (int i = 0; i < w * h; ++i)
        image.pixels[i * 4 + channel] = bits(background);
    for (const auto &[x, y, v] : marks)
        image.pixels[(y * w + x) * 4 + channel] = bits(v);
    return image;
}

std::string failureOf(const std::function<void()> &f)
{
    try {
        f();
    } catch (const Failure &e) {
        return e.what();
    }
    return {};
}

}  // namespace

TEST(ImageDecoder, DecodesHalfRgbaAndRgbWithOpaqueAlpha)
{
    QTemporaryDir dir;
    Exr rgba;
    rgba.write(dir.filePath("rgba.exr"));
    const HalfImage a = decodeEXR(dir.filePath("rgba.exr"));
    ASSERT_EQ(a.width, 4);
    ASSERT_EQ(a.height, 3);
    ASSERT_EQ(a.pixels.size(), 4u * 3u * 4u);
    // Row 2, column 3, channel B: 3 + 20 + 0.5, bit for bit, top row first.
    EXPECT_EQ(a.pixels[(2 * 4 + 3) * 4 + 2], bits(23.5f));
    EXPECT_EQ(a.pixels[3], bits(0.75f));

    Exr rgb = rgba;
    rgb.alpha = false;
    rgb.compression = Imf::PIZ_COMPRESSION;
    rgb.write(dir.filePath("rgb.exr"));
    const HalfImage b = decodeEXR(dir.filePath("rgb.exr"));
    EXPECT_EQ(b.pixels[(1 * 4 + 2) * 4 + 0], bits(12.0f));
    for (size_t i = 3; i < b.pixels.size(); i += 4)
        ASSERT_EQ(b.pixels[i], 0x3C00);
}

TEST(ImageDecoder, FailureTexts)
{
    QTemporaryDir dir;
    const QString missing = dir.filePath("nope.exr");
    EXPECT_EQ(failureOf([&] { decodeEXR(missing); }), ("não achei " + missing).toStdString());
    EXPECT_EQ(failureOf([&] { decodeGray(missing); }), ("não achei " + missing).toStdString());

    Exr wide;
    wide.type = Imf::FLOAT;
    wide.write(dir.filePath("float.exr"));
    EXPECT_EQ(failureOf([&] { decodeEXR(dir.filePath("float.exr")); }), "float.exr: precisa ser EXR half RGB(A)");

    Exr good;
    good.width = 64;
    good.height = 64;
    good.write(dir.filePath("good.exr"));
    const QByteArray whole = testsupport::readFile(dir.filePath("good.exr"));
    testsupport::writeFile(dir.filePath("cut.exr"), whole.left(whole.size() / 2));
    testsupport::writeFile(dir.filePath("junk.exr"), QByteArray(500, 'x'));
    testsupport::writeFile(dir.filePath("junk.png"), QByteArray("\x89PNG\r\n\x1a\n garbage"));
    EXPECT_EQ(failureOf([&] { decodeEXR(dir.filePath("cut.exr")); }),
              "ImageIO não lê cut.exr (compressão DWAA? use ZIP/PIZ)");
    EXPECT_EQ(failureOf([&] { decodeEXR(dir.filePath("junk.exr")); }),
              "ImageIO não lê junk.exr (compressão DWAA? use ZIP/PIZ)");
    EXPECT_NE(failureOf([&] { decodeGray(dir.filePath("junk.png")); }).find("junk.png"), std::string::npos);
}

TEST(ImageDecoder, GreyMasksFromGreyAndColourPngs)
{
    QTemporaryDir dir;
    // Width 5 makes QImage pad every row to 8 bytes.
    QImage grey(5, 2, QImage::Format_Grayscale8);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 5; ++x)
            grey.scanLine(y)[x] = uchar(x * 50 + y);
    ASSERT_TRUE(grey.save(dir.filePath("grey.png")));
    const GrayImage g = decodeGray(dir.filePath("grey.png"));
    ASSERT_EQ(g.width, 5);
    ASSERT_EQ(g.pixels.size(), 10u);
    EXPECT_EQ(g.pixels[4], 200);
    EXPECT_EQ(g.pixels[5 + 4], 201);

    QImage colour(3, 1, QImage::Format_RGB888);
    colour.setPixel(0, 0, qRgb(255, 255, 255));
    colour.setPixel(1, 0, qRgb(0, 0, 0));
    colour.setPixel(2, 0, qRgb(0, 255, 0));
    ASSERT_TRUE(colour.save(dir.filePath("colour.png")));
    const GrayImage c = decodeGray(dir.filePath("colour.png"));
    EXPECT_EQ(c.pixels[0], 255);
    EXPECT_EQ(c.pixels[1], 0);
    EXPECT_GT(c.pixels[2], 100);  // green is bright
    EXPECT_LT(c.pixels[2], 255);
}

TEST(ImageDecoder, CropThresholdsPerKind)
{
    // The smallest counting bit patterns: 0x181A (≈0.0020), 0x141A (≈0.0010), 0x101A (≈0.0005).
    const auto withBits = [](uint16_t pattern, int channel) {
        HalfImage image{8, 8, std::vector<uint16_t>(8 * 8 * 4, 0)};
        image.pixels[(3 * 8 + 4) * 4 + channel] = pattern;
        return image;
    };
    EXPECT_FALSE(cropSprite(alphaImage(8, 8, 0.0019f, {})).has_value());
    EXPECT_FALSE(cropSprite(withBits(0x1819, 3)).has_value());
    EXPECT_TRUE(cropSprite(withBits(0x181A, 3)).has_value());
    EXPECT_FALSE(cropByChannel(withBits(0x1419, 1), 1).has_value());
    EXPECT_TRUE(cropByChannel(withBits(0x141A, 1), 1).has_value());
    EXPECT_FALSE(cropByChannel(withBits(0x141A, 1), 2).has_value());
    EXPECT_FALSE(cropAdditive(withBits(0x1019, 2)).has_value());
    EXPECT_TRUE(cropAdditive(withBits(0x101A, 2)).has_value());
    EXPECT_TRUE(cropAdditive(withBits(0x101A, 0)).has_value());
    EXPECT_FALSE(cropSprite(withBits(0x101A, 0)).has_value());
    // Additive sprites ignore alpha.
    EXPECT_FALSE(cropAdditive(alphaImage(8, 8, 1.0f, {}, 3)).has_value());

    const float inf = std::numeric_limits<float>::infinity();
    EXPECT_FALSE(cropSprite(alphaImage(8, 8, -1.0f, {})).has_value());
    EXPECT_FALSE(cropSprite(alphaImage(8, 8, std::nanf(""), {})).has_value());
    EXPECT_TRUE(cropSprite(alphaImage(8, 8, inf, {})).has_value());
}

TEST(ImageDecoder, CropBoxHasOneMarginClampedAndOrigin)
{
    HalfImage image = alphaImage(10, 8, 0, {{4, 3, 1.0f}, {6, 5, 0.5f}});
    image.pixels[(5 * 10 + 6) * 4 + 0] = bits(7.0f);
    const auto crop = cropSprite(image, {100, 200});
    ASSERT_TRUE(crop);
    EXPECT_EQ(crop->rect, (std::array<float, 4>{103, 202, 5, 5}));
    ASSERT_EQ(crop->image.width, 5);
    ASSERT_EQ(crop->image.height, 5);
    EXPECT_EQ(crop->image.pixels[(3 * 5 + 3) * 4 + 0], bits(7.0f));  // (6,5) → (3,3)

    const auto edge = cropSprite(alphaImage(10, 8, 0, {{0, 0, 1.0f}, {9, 7, 1.0f}}));
    ASSERT_TRUE(edge);
    EXPECT_EQ(edge->rect, (std::array<float, 4>{0, 0, 10, 8}));

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
    EXPECT_EQ(cropMask(mask)->rect, (std::array<float, 4>{0, 2, 2, 2}));
}
