#include "TestSupport.h"

#include "core/scene/ImageDecoder.h"
#include "core/lighting/LightMixer.h"
#include "core/scene/PlateManifest.h"
#include "core/scene/SceneFiles.h"

#include <ImfChannelList.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>

#include <Imath/half.h>

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
    // Mean luminance of a preset's light over the whole plate, summed from its recipe.
    static double presetLuminance(const LightMixer &mixer, const QString &framing, const QString &preset)
    {
        const double luma[3] = {0.2126, 0.7152, 0.0722};
        double sum = 0;
        for (const auto &term : mixer.presets.at(preset).recipe) {
            const HalfImage img = ImageDecoder::decodeEXR(root() + "/" + SceneFiles::lightPlate(framing, term.plate));
            for (size_t i = 0; i < img.pixels.size(); ++i) {
                half h;
                h.setBits(img.pixels[i]);
                if (i % 4 < 3) sum += luma[i % 4] * term.weight[i % 4] * float(h);
            }
        }
        return sum / (plateW * plateH);
    }

    static inline std::unique_ptr<QTemporaryDir> dir;
    static inline ToolResult result;
    PlateManifest manifest;
};

}  // namespace

TEST_F(GeneratedScene, ManifestHasEverySectionAndEveryFileItNamesHasItsSizeAndFormat)
{
    EXPECT_TRUE(manifest.view && manifest.tonemap && manifest.showcase && manifest.scenario);
    for (const auto &[name, preset] : manifest.presets) {
        EXPECT_TRUE(preset.count("record_light") && preset.at("record_light").isNested()) << name.toStdString();
        EXPECT_TRUE(preset.count("exposure_by_scenario") && preset.at("exposure_by_scenario").isObject())
            << name.toStdString();
    }
    const QJsonObject summary = QJsonDocument::fromJson(result.out).object();
    EXPECT_EQ(summary["files"].toInt(), int(filesUnder(root()).size()));
    ASSERT_EQ(manifest.framings.size(), 2u);
    int exrs = 0;
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
                ++exrs;
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
    EXPECT_GT(exrs, 200);
    EXPECT_EQ(QImage(dir->filePath("preview.png")).size(), QSize(plateW, plateH));
}

TEST_F(GeneratedScene, GeometryProjectsOntoThePlate)
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
        const auto labelCross = diagonalCross(f.label.corners);
        EXPECT_NEAR(centre[0], labelCross[0], 0.05);
        const GrayImage recordMask =
            ImageDecoder::decodeGray(root() + "/" + SceneFiles::framingFile(name, f.record->mask));
        EXPECT_GT(recordMask.pixels[size_t(int(centre[1]) * recordMask.width + int(centre[0]))], 0);
        EXPECT_EQ(*std::max_element(recordMask.pixels.begin(), recordMask.pixels.end()), 255) << "never wholly record";
        ASSERT_TRUE(f.tonearm->planeZ.has_value());
        EXPECT_DOUBLE_EQ(*f.tonearm->planeZ, f.record->centerWorld[2]);
        EXPECT_DOUBLE_EQ(f.tonearm->pivot[2], f.record->centerWorld[2]);
        EXPECT_TRUE(inside(project(f, f.tonearm->pivot), f.tonearm->bbox));
        const double pivotDistance =
            std::hypot(f.tonearm->pivot[0] - f.record->centerWorld[0], f.tonearm->pivot[1] - f.record->centerWorld[1]);
        EXPECT_GT(pivotDistance, f.record->radiusMm);
        const auto &arm = *f.tonearm;
        EXPECT_TRUE(std::is_sorted(arm.yawSamples.begin(), arm.yawSamples.end()));
        EXPECT_LT(arm.yawRest, arm.yawLeadIn);
        EXPECT_LT(arm.yawLeadIn, arm.yawRunOut);
        EXPECT_TRUE(arm.yawSamples.front() <= arm.yawRest && arm.yawSamples.back() >= arm.yawRunOut);
        for (const auto &p : {f.panel->led33->centerPx, f.panel->led45->centerPx, f.steam->pointPx})
            EXPECT_TRUE(inside(p, plate));
        EXPECT_GT(f.panel->led33->radiusPx, 0);
    }
}

TEST_F(GeneratedScene, MasksSpritesAndLightHoldContent)
{
    const LightMixer mixer(manifest);
    for (const auto &[name, f] : manifest.framings) {
        SCOPED_TRACE(name.toStdString());
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
        // The stack map covers exactly its rectangle.
        const QImage stack(root() + "/" + SceneFiles::framingFile(name, f.stack->artUv));
        int x0 = 1 << 20, x1 = -1;
        for (int y = 0; y < stack.height(); ++y)
            for (int x = 0; x < stack.width(); ++x)
                if (qBlue(stack.pixel(x, y)) > 0) {
                    x0 = std::min(x0, x);
                    x1 = std::max(x1, x);
                }
        EXPECT_EQ(x0, int(f.stack->bbox[0]));
        EXPECT_EQ(x1 + 1, int(f.stack->bbox[0] + f.stack->bbox[2]));
        // Every arm sprite shows the arm; the day shadow darkens something at rest.
        for (const QString &preset : manifest.presetOrder())
            for (int i = 0; i < int(f.tonearm->yawSamples.size()); ++i) {
                const QString rel = SceneFiles::tonearmSprite(name, preset, i, SceneFiles::SpriteKind::arm);
                EXPECT_TRUE(ImageDecoder::cropSprite(ImageDecoder::decodeEXR(root() + "/" + rel))) << rel.toStdString();
            }
        EXPECT_TRUE(ImageDecoder::cropShadow(ImageDecoder::decodeGray(
            root() + "/" + SceneFiles::tonearmSprite(name, "dia", 0, SceneFiles::SpriteKind::shadow))));
        // Night is darker than day, and the recipes name plates that exist.
        const double day = presetLuminance(mixer, name, "dia"), night = presetLuminance(mixer, name, "noite");
        EXPECT_GT(day, 0.02);
        EXPECT_GT(night, 0.0);
        EXPECT_GT(day, 1.5 * night) << "day " << day << ", night " << night;
    }
}

TEST_F(GeneratedScene, SameOptionsGiveTheSameBytesAndTheSeedChangesThem)
{
    QTemporaryDir again;
    ASSERT_EQ(generate(again.filePath("same"), {"--framings", "wide,mid", "--seed", "7"}).exitCode, 0);
    const auto first = filesUnder(root()), same = filesUnder(again.filePath("same"));
    ASSERT_GT(first.size(), 100u);
    EXPECT_TRUE(same == first);

    ASSERT_EQ(generate(again.filePath("other"), {"--framings", "wide,mid", "--seed", "8"}).exitCode, 0);
    const auto other = filesUnder(again.filePath("other"));
    ASSERT_EQ(other.size(), first.size());
    EXPECT_TRUE(other.at("mid/light/view_dia.exr") != first.at("mid/light/view_dia.exr"));
    EXPECT_EQ(other.at("manifest.json"), first.at("manifest.json"));
}

TEST(SceneGenerator, RejectsBadOptions)
{
    QTemporaryDir dir;
    auto r = generate(dir.filePath("x"), {"--framings", "wide,balcony"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains("balcony")) << r.err.constData();
    EXPECT_FALSE(QFileInfo::exists(dir.filePath("x/manifest.json")));

    r = runTool(builtTool("turnelo-gen-scene"), {"--width", "100"});
    EXPECT_EQ(r.exitCode, 2);
    r = runTool(builtTool("turnelo-gen-scene"), {"--out", dir.filePath("y"), "--width", "wide"});
    EXPECT_EQ(r.exitCode, 2);
}
