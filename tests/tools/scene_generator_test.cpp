#include "TestSupport.h"

#include "core/scene/ImageDecoder.h"
#include "core/scene/PlateManifest.h"
#include "core/scene/SceneFiles.h"

#include <ImfChannelList.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <QImage>
#include <gtest/gtest.h>

#include <cmath>
#include <memory>

using namespace testsupport;

namespace {

// 97 rows: the plates are written in bands of 32, so the last band is a single row.
constexpr int plateW = 160, plateH = 97;

ToolResult generate(const QString &out, const QStringList &extra = {})
{
    const QStringList size{"--width", QString::number(plateW), "--height", QString::number(plateH)};
    return runTool(builtTool("turnelo-gen-scene"), QStringList{"--out", out} + size + extra, {}, 600000);
}

std::array<double, 2> project(const PlateManifest::Framing &f, const std::array<double, 3> &w)
{
    const auto &P = f.camera.P;
    double h[3];
    for (int r = 0; r < 3; ++r) h[r] = P[r][0] * w[0] + P[r][1] * w[1] + P[r][2] * w[2] + P[r][3];
    return {h[0] / h[2], h[1] / h[2]};
}

bool inside(const std::array<double, 2> &p, const PlateManifest::Rect &r)
{
    return p[0] >= r[0] && p[1] >= r[1] && p[0] < r[0] + r[2] && p[1] < r[1] + r[3];
}

// Intersection of the quad's diagonals: where the centre of the square it images lies.
std::array<double, 2> diagonalCross(const PlateManifest::Quad &q)
{
    const double x1 = q[0][0], y1 = q[0][1], x2 = q[2][0], y2 = q[2][1];
    const double x3 = q[1][0], y3 = q[1][1], x4 = q[3][0], y4 = q[3][1];
    const double d = (x1 - x2) * (y3 - y4) - (y1 - y2) * (x3 - x4);
    const double a = x1 * y2 - y1 * x2, b = x3 * y4 - y3 * x4;
    return {(a * (x3 - x4) - (x1 - x2) * b) / d, (a * (y3 - y4) - (y1 - y2) * b) / d};
}

struct ExrInfo {
    QSize size;
    bool zipOfHalves = false, alpha = false;
};

ExrInfo exrInfo(const QString &path)
{
    Imf::InputFile file(QFile::encodeName(path).constData());
    const Imf::Header &h = file.header();
    ExrInfo info{{h.dataWindow().size().x + 1, h.dataWindow().size().y + 1},
                 h.compression() == Imf::ZIP_COMPRESSION,
                 h.channels().findChannel("A") != nullptr};
    for (auto c = h.channels().begin(); c != h.channels().end(); ++c)
        info.zipOfHalves = info.zipOfHalves && c.channel().type == Imf::HALF;
    return info;
}

class GeneratedScene : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dir = std::make_unique<QTemporaryDir>();
        result = generate(dir->filePath("scene"),
                          {"--framings", "wide,mid", "--seed", "7", "--preview", dir->filePath("preview.png")});
    }
    static void TearDownTestSuite() { dir.reset(); }

    void SetUp() override
    {
        ASSERT_EQ(result.exitCode, 0) << result.err.constData();
        manifest = PlateManifest::decode(readFile(root() + "/manifest.json"));
    }

    static QString root() { return dir->filePath("scene"); }

    static inline std::unique_ptr<QTemporaryDir> dir;
    static inline ToolResult result;
    PlateManifest manifest;
};

}  // namespace

TEST_F(GeneratedScene, ManifestHasEverySectionAndEveryFileItNamesHasItsSizeAndFormat)
{
    ASSERT_EQ(manifest.framings.size(), 2u);
    for (const auto &[name, f] : manifest.framings) {
        EXPECT_EQ(f.size, (std::array<double, 2>{plateW, plateH}));
        EXPECT_EQ(SceneFiles::sections(f),
                  (QStringList{"tonearm", "front", "steam", "record", "bounce", "panel", "window", "stack"}))
            << name.toStdString();
        const QStringList files = SceneFiles::referenced(manifest, name);
        ASSERT_GT(files.size(), 100) << name.toStdString();
        for (const QString &rel : files) {
            SCOPED_TRACE(rel.toStdString());
            const QString path = root() + "/" + rel;
            ASSERT_TRUE(QFileInfo::exists(path));
            PlateManifest::Rect box{0, 0, f.size[0], f.size[1]};
            if (rel.contains("/record/"))
                box = f.record->bbox;
            else if (rel.contains("/bounce/"))
                box = f.bounce->bbox;
            else if (rel.contains("/reflection_"))
                box = *f.tonearm->reflectionBbox;
            else if (rel.contains("/tonearm/"))
                box = f.tonearm->bbox;
            const QSize size{int(box[2]), int(box[3])};
            if (rel.endsWith(".exr")) {
                const ExrInfo info = exrInfo(path);
                EXPECT_EQ(info.size, size);
                EXPECT_TRUE(info.zipOfHalves);
                EXPECT_EQ(info.alpha, rel.contains("/arm_") || rel.contains("/reflection_"));
            } else {
                const QImage img(path);
                EXPECT_EQ(img.size(), size);
                EXPECT_EQ(img.isGrayscale(), !rel.endsWith("strobe.png") && !rel.endsWith("stack_uv.png"));
            }
        }
        // Front layers are found by folder, not by name.
        const QDir front(root() + "/" + SceneFiles::frontDir(name));
        const QStringList layers = front.entryList({"*.exr"}, QDir::Files);
        ASSERT_FALSE(layers.isEmpty());
        for (const QString &layer : layers) {
            const ExrInfo info = exrInfo(front.filePath(layer));
            EXPECT_EQ(info.size.width(), plateW);
            EXPECT_TRUE(info.alpha);
        }
    }
    EXPECT_EQ(QImage(dir->filePath("preview.png")).size(), QSize(plateW, plateH));
}

TEST_F(GeneratedScene, GeometryProjectsOntoThePlateAndMasksAndSpritesHoldContent)
{
    for (const auto &[name, f] : manifest.framings) {
        SCOPED_TRACE(name.toStdString());
        const PlateManifest::Rect plate{0, 0, f.size[0], f.size[1]};
        ASSERT_TRUE(f.record && f.panel && f.panel->led33 && f.panel->led45 && f.tonearm && f.steam);
        // The spindle projects to the centre of the record's outline and onto the record mask.
        const auto centre = project(f, f.record->centerWorld);
        ASSERT_TRUE(inside(centre, plate));
        EXPECT_TRUE(inside(centre, f.record->bbox));
        const auto cross = diagonalCross(f.record->corners);
        EXPECT_NEAR(centre[0], cross[0], 0.05);
        EXPECT_NEAR(centre[1], cross[1], 0.05);
        const GrayImage recordMask =
            ImageDecoder::decodeGray(root() + "/" + SceneFiles::framingFile(name, f.record->mask));
        EXPECT_GT(recordMask.pixels[size_t(int(centre[1]) * recordMask.width + int(centre[0]))], 0);
        EXPECT_EQ(*std::max_element(recordMask.pixels.begin(), recordMask.pixels.end()), 255) << "never wholly record";
        // The arm rests off the record and sweeps inwards from the lead-in to the run-out.
        const auto &arm = *f.tonearm;
        EXPECT_TRUE(inside(project(f, arm.pivot), arm.bbox));
        EXPECT_TRUE(arm.yawRest < arm.yawLeadIn && arm.yawLeadIn < arm.yawRunOut);
        for (const auto &p : {f.panel->led33->centerPx, f.panel->led45->centerPx, f.steam->pointPx})
            EXPECT_TRUE(inside(p, plate));

        auto gray = [&](const QString &file) {
            return ImageDecoder::decodeGray(root() + "/" + SceneFiles::framingFile(name, file));
        };
        const GrayImage cover = gray(f.cover.mask), glass = gray(f.window->glassMask),
                        dust = gray(*f.window->dustCoverMask);
        // The sleeve's mask sits within its corners.
        const auto coverCrop = ImageDecoder::cropMask(cover);
        ASSERT_TRUE(coverCrop.has_value());
        const auto [left, right] =
            std::minmax({f.cover.corners[0][0], f.cover.corners[1][0], f.cover.corners[2][0], f.cover.corners[3][0]});
        EXPECT_GE(coverCrop->rect[0], std::floor(left) - 2);
        EXPECT_LE(coverCrop->rect[0] + coverCrop->rect[2], std::ceil(right) + 2);
        ASSERT_TRUE(ImageDecoder::cropMask(glass).has_value());
        // Glass seen through the dust cover is glass.
        for (size_t i = 0; i < dust.pixels.size(); ++i)
            if (dust.pixels[i] > 0) {
                ASSERT_GT(glass.pixels[i], 0) << i;
            }
        // Every arm sprite shows the arm; the day shadow darkens something at rest.
        for (const QString &preset : manifest.presetOrder())
            for (int i = 0; i < int(f.tonearm->yawSamples.size()); ++i) {
                const QString rel = SceneFiles::tonearmSprite(name, preset, i, SceneFiles::SpriteKind::arm);
                EXPECT_TRUE(ImageDecoder::cropSprite(ImageDecoder::decodeEXR(root() + "/" + rel))) << rel.toStdString();
            }
        EXPECT_TRUE(ImageDecoder::cropShadow(ImageDecoder::decodeGray(
            root() + "/" + SceneFiles::tonearmSprite(name, "dia", 0, SceneFiles::SpriteKind::shadow))));
    }
}

TEST(SceneGenerator, AnUnknownFramingIsNamedAndNothingIsWritten)
{
    QTemporaryDir dir;
    const auto r = generate(dir.filePath("x"), {"--framings", "wide,balcony"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains("balcony")) << r.err.constData();
    EXPECT_FALSE(QFileInfo::exists(dir.filePath("x/manifest.json")));
}
