#include "core/music/CoverArt.h"
#include "TestSupport.h"

#include <QColorSpace>
#include <gtest/gtest.h>

namespace {

using testsupport::solidImage;

// Stands in for the renderer's texture upload: records what it was given and counts releases.
struct Uploads {
    int made = 0;
    int released = 0;
    std::vector<QImage::Format> formats;
    CoverArt::TextureMaker maker()
    {
        return [this](const QImage &image) {
            ++made;
            formats.push_back(image.format());
            return CoverArt::Texture(new int(made), [this](void *p) {
                ++released;
                delete static_cast<int *>(p);
            });
        };
    }
};

}  // namespace

TEST(CoverArt, FadeAndLabelLuminance)
{
    CoverArt art(nullptr);
    art.set(solidImage(Qt::red), QImage(), 10.0);
    // Smoothstep over 0.7 s: at a quarter of it, 0.15625.
    for (const auto &[time, fade] :
         {std::pair{9.0, 0.0}, {10.0, 0.0}, {10.175, 0.15625}, {10.35, 0.5}, {10.7, 1.0}, {99.0, 1.0}})
        EXPECT_NEAR(art.fade(time), fade, 1e-12) << time;

    // Label luminance comes from the label, or without one from the cover.
    art.set(solidImage(Qt::white), solidImage(Qt::black), 20.0);
    EXPECT_NEAR(art.current().labelLuminance, 0.0, 1e-9);
    EXPECT_NEAR(art.current().mean.g, 1.0, 1e-9);
    art.set(solidImage(Qt::green), QImage(), 25.0);
    EXPECT_NEAR(art.current().labelLuminance, 0.7152, 1e-6);
    EXPECT_NEAR(art.labelLuminance(25.35), 0.7152 / 2, 1e-6);
}

TEST(CoverArt, MeanColourIsLinearAndCrossFades)
{
    // Half black, half white averages to 0.5 in linear light, not to mid-grey's 0.214.
    QImage halves = solidImage(Qt::black, 10, 10);
    for (int y = 0; y < 10; ++y)
        for (int x = 5; x < 10; ++x) halves.setPixelColor(x, y, Qt::white);
    const CoverArt::Color m = CoverArt::meanLinear(halves);
    EXPECT_NEAR(m.r, 0.5, 1e-9);
    EXPECT_NEAR(m.g, 0.5, 1e-9);

    // A large cover is sampled, and still gives its true mean.
    const CoverArt::Color big = CoverArt::meanLinear(solidImage(QColor(200, 100, 50), 2000, 2000));
    const CoverArt::Color small = CoverArt::meanLinear(solidImage(QColor(200, 100, 50), 8, 8));
    EXPECT_NEAR(big.r, small.r, 1e-9);
    EXPECT_NEAR(big.b, small.b, 1e-9);

    // White to blue: each channel half way at the fade's middle.
    CoverArt art(nullptr);
    art.set(solidImage(Qt::white), QImage(), 0.0);
    art.set(solidImage(Qt::blue), QImage(), 100.0);
    EXPECT_EQ(art.mean(100.0), (CoverArt::Color{1, 1, 1}));
    const CoverArt::Color half = art.mean(100.35);
    EXPECT_NEAR(half.r, 0.5, 1e-9);
    EXPECT_NEAR(half.g, 0.5, 1e-9);
    EXPECT_NEAR(half.b, 1.0, 1e-9);
    EXPECT_EQ(art.mean(101.0), (CoverArt::Color{0, 0, 1}));
}

TEST(CoverArt, PreviousTexturesLiveUntilTheFadeIsOver)
{
    Uploads uploads;
    CoverArt art(uploads.maker());
    EXPECT_TRUE(art.usesDefaultCover());
    EXPECT_EQ(uploads.made, 2) << "placeholder cover and label";
    ASSERT_TRUE(art.current().cover && art.current().label);

    const QImage first = solidImage(Qt::red);
    art.set(first, QImage(), 1.0);
    EXPECT_FALSE(art.usesDefaultCover());
    EXPECT_EQ(uploads.made, 4);
    EXPECT_EQ(uploads.released, 0) << "the placeholder is still fading out";
    EXPECT_TRUE(art.previous().placeholder);
    EXPECT_FALSE(art.releasePrevious(1.69));
    EXPECT_EQ(uploads.released, 0);
    EXPECT_TRUE(art.releasePrevious(1.7));
    EXPECT_EQ(uploads.released, 2);
    EXPECT_FALSE(art.releasePrevious(2.0)) << "nothing left to drop";

    // The same images again start nothing.
    art.set(first, QImage(), 5.0);
    EXPECT_DOUBLE_EQ(art.fadeStart(), 1.0);
    EXPECT_EQ(uploads.made, 4);

    // A change in the middle of a fade lets the half-faded cover go at once.
    art.set(solidImage(Qt::blue), QImage(), 10.0);
    art.set(solidImage(Qt::green), QImage(), 10.2);
    EXPECT_EQ(uploads.released, 4);
    EXPECT_EQ(uploads.made, 8);

    // No art: back to the placeholder.
    art.set(QImage(), QImage(), 20.0);
    EXPECT_TRUE(art.usesDefaultCover());
    EXPECT_TRUE(art.current().cover != nullptr);
    for (QImage::Format f : uploads.formats) EXPECT_EQ(f, QImage::Format_RGBA8888);
}

TEST(CoverArt, ImagePreparation)
{
    const QImage wide = CoverArt::prepareCover(solidImage(Qt::red, 3000, 1500));
    EXPECT_EQ(wide.size(), QSize(1024, 512));
    EXPECT_EQ(wide.format(), QImage::Format_RGBA8888);
    EXPECT_EQ(wide.colorSpace(), QColorSpace(QColorSpace::SRgb));
    EXPECT_EQ(CoverArt::prepareCover(solidImage(Qt::red, 300, 200)).size(), QSize(300, 200));

    // The label is the centre square: a wide image's red sides are cut away.
    QImage banded = solidImage(Qt::red, 300, 100);
    for (int y = 0; y < 100; ++y)
        for (int x = 100; x < 200; ++x) banded.setPixelColor(x, y, Qt::blue);
    const QImage label = CoverArt::prepareLabel(banded);
    EXPECT_EQ(label.size(), QSize(CoverArt::labelSide, CoverArt::labelSide));
    EXPECT_EQ(label.pixelColor(2, 128), QColor(Qt::blue));
    EXPECT_EQ(label.pixelColor(253, 128), QColor(Qt::blue));

    // The placeholder: a square, dark sleeve.
    const QImage placeholder = CoverArt::placeholderCover();
    EXPECT_EQ(placeholder.width(), placeholder.height());
    const CoverArt::Color pm = CoverArt::meanLinear(placeholder);
    EXPECT_GT(pm.r, 0.0);
    EXPECT_LT(CoverArt::luminance(pm), 0.1) << "a dark sleeve";
}
