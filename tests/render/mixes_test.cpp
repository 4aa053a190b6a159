#include "RenderTestSupport.h"

#include "render/PresetMixes.h"

#include <gtest/gtest.h>

using namespace rendertest;
using namespace std::chrono_literals;

namespace {

constexpr VkFormat rgba16 = VK_FORMAT_R16G16B16A16_SFLOAT;

class Mixes : public RendererTest {
protected:
    void SetUp() override
    {
        RendererTest::SetUp();
        ASSERT_TRUE(tmp.isValid());
    }
    MixBuilder &builder() { return *renderer->mixBuilder(); }
    std::vector<std::array<float, 4>> pixels(const TextureRef &t) { return readTexture(*renderer->vulkan(), *t); }

    QTemporaryDir tmp;
    QString dir = tmp.filePath("light");
};

// A missing plate is skipped; with none left the preset fails (Families below), and a plate of the wrong size fails
// the room's load (the scene tests).
TEST_F(Mixes, WeightedPlatesAreSummedInBandsOf256RowsAndAMissingOneIsSkipped)
{
    const int w = 8, h = 257;
    writeExr(dir + "/room.exr", w, h, [](int, int) { return std::array<float, 4>{0.5f, 0.25f, 1.0f, 1}; });
    writeExr(dir + "/lamp.exr", w, h, [](int x, int y) {
        return std::array<float, 4>{x * 0.125f, y / 512.0f, 0.5f, 1};
    });
    // Rows 255 and 256 lie either side of the first band's end.
    const auto px = pixels(builder().build(
        {{"gone", {1, 1, 1}, false}, {"room", {1, 2, 0.5}, false}, {"lamp", {3, 3, 3}, false}}, dir, w, h, rgba16));
    for (int y : {0, 1, 128, 255, 256})
        for (int x : {0, 3, 7}) {
            SCOPED_TRACE(testing::Message() << x << "," << y);
            const auto &p = px[size_t(y) * w + x];
            EXPECT_NEAR(p[0], 0.5f + 3 * x * 0.125f, 0.01f);
            EXPECT_NEAR(p[1], 0.5f + 3 * y / 512.0f, 0.004f);
            EXPECT_NEAR(p[2], 0.5f + 1.5f, 0.01f);
            EXPECT_EQ(p[3], 0.0f);  // colour terms add nothing to alpha
        }
}

TEST_F(Mixes, AlphaTermsAddLuminanceAndTheLightFormatDropsAlpha)
{
    writeExr(dir + "/x_gloss.exr", 4, 4, [](int, int) { return std::array<float, 4>{0.2f, 0.2f, 0.2f, 1}; });
    writeExr(dir + "/x_diffuse.exr", 4, 4, [](int, int) { return std::array<float, 4>{1.0f, 0.5f, 0.25f, 0.5f}; });
    const auto p =
        pixels(builder().build({{"x_gloss", {2, 2, 2}, false}, {"x_diffuse", {1, 2, 4}, true}}, dir, 4, 4, rgba16))[5];
    EXPECT_NEAR(p[0], 0.4f, 0.002f);
    EXPECT_NEAR(p[3], 1.0f, 0.003f);  // the luminance of (1, 0.5, 0.25) · (1, 2, 4)
    const TextureRef t = builder().build({{"x_diffuse", {0.75, 4, 0.5}, false}}, dir, 4, 4, renderer->lightFormat());
    EXPECT_EQ(t->format, renderer->lightFormat());
    const auto q = pixels(t)[0];
    const std::array<float, 3> want{0.75f, 2.0f, 0.125f}, tolerance{0.01f, 0.02f, 0.005f};
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(q[c], want[c], tolerance[c]) << "channel " << c;
}

// Presets "dia" and "noite" of one plate each, "tarde" of both, "vazio" of one that does not exist.
LightMixer lights()
{
    LightMixer m;
    m.presets["dia"].recipe = {{"sun_a", {1, 1, 1}}};
    m.presets["noite"].recipe = {{"lamp", {1, 1, 1}}};
    m.presets["tarde"].recipe = {{"sun_a", {0.5, 0.5, 0.5}}, {"lamp", {0.5, 0.5, 0.5}}};
    m.presets["vazio"].recipe = {{"nothing", {1, 1, 1}}};
    return m;
}

class Families : public Mixes {
protected:
    void SetUp() override
    {
        Mixes::SetUp();
        writeExr(dir + "/sun_a.exr", 16, 8, [](int, int) { return std::array<float, 4>{1, 1, 1, 1}; });
        writeExr(dir + "/lamp.exr", 16, 8, [](int, int) { return std::array<float, 4>{0, 0, 2, 1}; });
        mixes.onReady = [&](const QString &p) { ready << p; };
        mixes.onFailure = [&](const QString &e) { failures << e; };
    }
    PresetMixes mixes{"luz", renderer->mixBuilder(), dir, lights(), 16, 8, rgba16, PresetMixes::TermRule::asIs};
    QStringList ready, failures;
};

TEST_F(Families, BuildOneAtATimeInNameOrderAndEvict)
{
    mixes.ensure({"tarde", "noite", "dia", "unknown"});
    EXPECT_EQ(mixes.building().value_or(""), "dia");
    EXPECT_EQ(std::vector<QString>(mixes.queue().begin(), mixes.queue().end()),
              (std::vector<QString>{"noite", "tarde"}));  // no recipe: never queued
    mixes.ensure({"tarde", "noite", "dia", "unknown"});   // the same set changes nothing
    EXPECT_EQ(mixes.queue().size(), 2u);
    ASSERT_TRUE(testsupport::waitUntil([&] { return ready.size() == 3; }, 120s));
    EXPECT_EQ(ready, (QStringList{"dia", "noite", "tarde"}));
    EXPECT_NEAR(pixels(mixes.ready("tarde"))[0][2], 1.5f, 0.005f);  // 0.5 · 1 + 0.5 · 2

    mixes.ensure({"noite"});
    EXPECT_EQ(mixes.ready("dia"), nullptr);
    EXPECT_NE(mixes.ready("noite"), nullptr);
    EXPECT_FALSE(mixes.building().has_value());
}

TEST_F(Families, ADroppedBuildIsDiscardedAndAFailedOneReportedWhileTheQueueGoesOn)
{
    mixes.ensure({"dia", "noite", "vazio"});
    ASSERT_EQ(mixes.building().value_or(""), "dia");
    mixes.ensure({"noite", "vazio"});
    EXPECT_EQ(mixes.building().value_or(""), "dia");  // still in flight
    ASSERT_TRUE(testsupport::waitUntil([&] { return ready.size() + failures.size() >= 2 && !mixes.building(); }, 120s));
    EXPECT_EQ(ready, QStringList{"noite"});
    EXPECT_EQ(mixes.ready("dia"), nullptr);
    EXPECT_EQ(failures, QStringList{"nenhuma plate de luz em " + dir});
}

}  // namespace
