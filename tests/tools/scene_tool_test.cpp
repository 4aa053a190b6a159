#include "TestSupport.h"

#include <ImfRgbaFile.h>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>

using namespace testsupport;

namespace {

ToolResult scene(const QStringList &args) { return runTool(builtTool("turnelo-scene"), args); }

// Const, so that reading a key the tool left out gives Undefined instead of inserting a Null.
const QJsonObject json(const ToolResult &r) { return QJsonDocument::fromJson(r.out).object(); }

void writeRgba(const QString &path, int w, int h, const std::function<Imf::Rgba(int, int)> &pixel)
{
    std::vector<Imf::Rgba> pixels(size_t(w) * h);
    for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = pixel(int(i % w), int(i / w));
    Imf::RgbaOutputFile file(QFile::encodeName(path).constData(), w, h, Imf::WRITE_RGBA);
    file.setFrameBuffer(pixels.data(), 1, w);
    file.writePixels(h);
}

}  // namespace

TEST(SceneTool, ValidateListsSectionsAndMissingFiles)
{
    QTemporaryDir dir;
    writeFile(dir.filePath("manifest.json"), minimalManifest());
    auto r = scene({"validate", dir.path()});
    ASSERT_EQ(r.exitCode, 0) << r.err.constData();
    const QJsonObject o = json(r);
    EXPECT_EQ(o["framings"].toObject()["mid"].toObject()["sections"].toArray(), QJsonArray{});
    EXPECT_EQ(o["missing"].toArray(), (QJsonArray{"mid/light/room.exr", "mid/masks/cover.png", "mid/masks/label.png"}));

    // Validate only tells which named files are absent: once each one it reported is there, none is missing.
    for (const QJsonValue &rel : o["missing"].toArray()) writeFile(dir.filePath(rel.toString()), "x");
    r = scene({"validate", dir.path()});
    ASSERT_EQ(r.exitCode, 0) << r.err.constData();
    EXPECT_EQ(json(r)["missing"], QJsonArray{});
}

TEST(SceneTool, BlendAtALocalTime)
{
    QTemporaryDir dir;
    writeFile(dir.filePath("manifest.json"), minimalManifest());
    // Keyframes 06:00 manha and 10:00 dia; seconds are read too. The blend itself is the light
    // mixer's tests' business.
    EXPECT_EQ(json(scene({"blend", dir.path(), "--at", "10:00"}))["blend"].toObject(), (QJsonObject{{"dia", 1}}));
    EXPECT_EQ(json(scene({"blend", dir.path(), "--at", "08:00:00"}))["blend"].toObject(),
              (QJsonObject{{"manha", 0.5}, {"dia", 0.5}}));

    const auto bad = scene({"blend", dir.path(), "--at", "25:99"});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_TRUE(bad.err.startsWith("hora inválida"));
}

TEST(SceneTool, CropKinds)
{
    QTemporaryDir dir;
    const QString sprite = dir.filePath("arm.exr");
    writeRgba(sprite, 40, 30, [](int x, int y) {
        const bool in = x >= 10 && x < 20 && y >= 5 && y < 8;
        return in ? Imf::Rgba(0.5f, 0.5f, 0.5f, 1) : Imf::Rgba(0, 0, 0, 0);
    });
    const auto o = json(scene({"crop", sprite, "--kind", "sprite"}));
    EXPECT_EQ(std::pair(o["width"].toInt(), o["height"].toInt()), std::pair(40, 30));
    EXPECT_EQ(o["rect"].toArray(), (QJsonArray{9, 4, 12, 5}));

    QImage shadow(16, 16, QImage::Format_Grayscale8);
    shadow.fill(255);
    ASSERT_TRUE(shadow.save(dir.filePath("shadow.png")));
    EXPECT_EQ(json(scene({"crop", dir.filePath("shadow.png"), "--kind", "shadow"}))["rect"], QJsonValue::Null)
        << "no shadow: no rectangle";
    EXPECT_EQ(scene({"crop", sprite, "--kind", "channel:7"}).exitCode, 1);
}

TEST(SceneTool, BadInputExitsOneWithTheMessage)
{
    QTemporaryDir dir;
    const QByteArray full = minimalManifest();
    writeFile(dir.filePath("manifest.json"), full.left(full.size() / 3));
    auto r = scene({"validate", dir.path()});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.out.isEmpty());
    EXPECT_TRUE(r.err.startsWith("Cena: manifest inválido em " + dir.path().toUtf8() + ": JSON ilegível"))
        << r.err.constData();

    writeFile(dir.filePath("garbage.exr"), QByteArray("v/1\x01 not an exr at all"));
    r = scene({"crop", dir.filePath("garbage.exr"), "--kind", "additive"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.contains("garbage.exr")) << r.err.constData();

    r = scene({"validate", dir.filePath("nowhere")});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(r.err.startsWith("não achei "));
}
