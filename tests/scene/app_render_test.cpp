#include "../render/RenderTestSupport.h"

#include "TestSupport.h"
#include "core/scene/SceneFiles.h"
#include "scene/PlateGeometry.h"

#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <cmath>

// The application's offline render of whole made scenes, in its own process so that a stall
// fails the test instead of hanging the suite.

using namespace rendertest;
using namespace testsupport;

namespace {

// `turnelo render` of one framing at a local time, with private XDG folders under `root`; a
// null picture when the run failed.
QImage appRender(const QTemporaryDir &root, const QString &scene, const QString &framing, QSize size,
                 const QString &time, const QStringList &extra = {})
{
    const QString out = root.filePath(framing + "-" + QString(time).remove(':') + ".png");
    const QStringList env{"XDG_STATE_HOME=" + root.filePath("state"), "XDG_DATA_HOME=" + root.filePath("data"),
                          "XDG_CONFIG_HOME=" + root.filePath("config")};
    const ToolResult r =
        runTool(QStringLiteral(TURNELO_BINARY_DIR) + "/turnelo",
                QStringList{"render", scene, out, "--framing", framing, "--size",
                            QStringLiteral("%1x%2").arg(size.width()).arg(size.height()), "--time", time} +
                    extra,
                env, 120000);
    EXPECT_EQ(r.exitCode, 0) << time.toStdString() << ": " << r.err.toStdString();
    const QImage image(out);
    EXPECT_EQ(image.size(), size) << time.toStdString();
    return image.size() == size ? image : QImage();
}

// Inside the glass mask (coverage over one half): buildings against the sky at noon, not a white sheet; lit
// windows and street lamps at night.
void expectCityView(const QImage &noon, const QImage &evening, const QImage &glass, const std::string &framing)
{
    struct View {
        double mean = 0, deviation = 0, above = 0;  // of the grey (0…1); above: the share brighter than `level`
    };
    const auto view = [&](const QImage &image, double level) {
        double sum = 0, squares = 0, count = 0, bright = 0;
        for (int y = 0; y < image.height(); ++y)
            for (int x = 0; x < image.width(); ++x) {
                if (qGray(glass.pixel(x, y)) < 128) continue;
                const double v = qGray(image.pixel(x, y)) / 255.0;
                sum += v, squares += v * v, count += 1, bright += v > level ? 1 : 0;
            }
        if (count == 0) return View{};
        const double mean = sum / count;
        return View{mean, std::sqrt(std::max(0.0, squares / count - mean * mean)), bright / count};
    };
    const View day = view(noon, 0.98), night = view(evening, 0.3);
    EXPECT_GE(day.deviation, 0.12) << framing << ": the noon view has no structure";
    EXPECT_LT(day.above, 0.05) << framing << ": the noon view is blown out";
    EXPECT_GE(night.above, 0.01) << framing << ": no lights in the night view";
    EXPECT_LT(night.mean, day.mean) << framing;
}

// The wide framing at half the plate size: the sleeve and label are seen small and steep, so
// their art is sampled far down its mip chain. The software device once spun forever on exactly
// this frame.
TEST(WideFraming, ASmallTargetRendersByNightAndDayWithoutStalling)
{
    QTemporaryDir root;
    const QString scene = root.filePath("scene");
    const ToolResult made = runTool(builtTool("turnelo-gen-scene"),
                                    {"--out", scene, "--width", "960", "--height", "540", "--framings", "wide"});
    ASSERT_EQ(made.exitCode, 0) << made.err.toStdString();
    const QImage night = appRender(root, scene, "wide", {480, 270}, "22:30"),
                 day = appRender(root, scene, "wide", {480, 270}, "12:00");
    ASSERT_FALSE(night.isNull() || day.isNull());
    EXPECT_GT(meanGrey(night), 1.0) << "the night frame is black";
    EXPECT_GT(meanGrey(day), meanGrey(night) * 1.2) << "day is not brighter than night";
}

// The authoring pipeline end to end in its quick mode: Blender models and renders the room in its
// four framings, the package validates, its geometry sits on what was rendered, the window shows a
// view by day and lights at night, and the application's offline render of it is darker at night,
// with the lamp's pool of light, and holds the night until dawn.
TEST(BlenderRoom, QuickPackageRendersAndLightsTheNight)
{
    const QString blender = QStandardPaths::findExecutable("blender");
    if (blender.isEmpty()) GTEST_SKIP() << "Blender is not installed (scripts/install-deps.sh --authoring installs it)";
    QTemporaryDir root;
    const QString scene = root.filePath("room");
    const ToolResult made =
        runTool(blender,
                {"-b", "--factory-startup", "-P", QStringLiteral(TURNELO_SOURCE_DIR) + "/tools/blender/render.py", "--",
                 "--out", scene, "--quick", "--scene-tool", builtTool("turnelo-scene")},
                {}, 40 * 60 * 1000);
    ASSERT_EQ(made.exitCode, 0) << made.out.right(3000).toStdString() << made.err.right(3000).toStdString();
    ASSERT_TRUE(made.out.contains("validate: ok")) << made.out.right(2000).toStdString();

    const ToolResult checked = runTool(builtTool("turnelo-scene"), {"validate", scene});
    ASSERT_EQ(checked.exitCode, 0) << checked.err.toStdString();
    const QJsonObject report = QJsonDocument::fromJson(checked.out).object();
    EXPECT_EQ(report["missing"].toArray(), QJsonArray{});
    const QJsonObject framings = report["framings"].toObject();
    for (const char *name : {"wide", "mid", "close", "top"}) {
        ASSERT_TRUE(framings.contains(name)) << name << ": " << checked.out.toStdString();
        for (const char *section : {"tonearm", "record", "bounce", "panel"})
            EXPECT_TRUE(framings[name].toObject()["sections"].toArray().contains(section)) << name << ": " << section;
    }
    for (const char *section : {"window", "stack"})
        EXPECT_TRUE(framings["mid"].toObject()["sections"].toArray().contains(section)) << section;
    EXPECT_TRUE(framings["close"].toObject()["sections"].toArray().contains("front"));

    // The view through the window is its own group in every preset, and the open lid stands in
    // front of the window in the wide framing.
    const QJsonObject json = QJsonDocument::fromJson(readFile(scene + "/manifest.json")).object();
    EXPECT_EQ(json["view"].toObject()["keys"].toArray().size(), 4);
    for (const char *preset : {"manha", "dia", "tarde", "noite"})
        EXPECT_GT(json["presets"].toObject()[preset].toObject()["view"].toDouble(), 0.0) << preset;
    const QJsonObject window = json["framings"].toObject()["wide"].toObject()["window"].toObject();
    ASSERT_TRUE(window.contains("dust_cover_mask"));
    EXPECT_GT(meanGrey(QImage(scene + "/wide/" + window["dust_cover_mask"].toString())), 0.0);

    // The camera matrix puts the record's centre and the lamp where Blender drew them.
    const PlateManifest manifest = PlateManifest::decode(readFile(scene + "/manifest.json"));
    const PlateManifest::Framing &mid = manifest.framings.at("mid");
    const auto plate = [&](const PlateGeometry::Vec3 &world) {
        const auto p = PlateGeometry::projectWorld(mid.camera, world).value();
        return QPointF(p[0], p[1]);
    };
    const QPointF centre = plate(mid.record->centerWorld);
    const QImage mask(scene + "/" + SceneFiles::framingFile("mid", mid.label.mask));
    const auto weight = [&](int x, int y) { return qGray(mask.pixel(x, y)) / 255.0; };
    const double coverage = sumOver(mask.rect(), weight);
    const QPointF drawn(sumOver(mask.rect(), [&](int x, int y) { return weight(x, y) * (x + 0.5); }) / coverage,
                        sumOver(mask.rect(), [&](int x, int y) { return weight(x, y) * (y + 0.5); }) / coverage);
    EXPECT_LT(QLineF(centre, drawn).length(), 1.0) << "label centre projected at " << centre.x() << "," << centre.y()
                                                   << ", drawn at " << drawn.x() << "," << drawn.y();

    const QSize size(int(mid.size[0]), int(mid.size[1]));
    const QImage noon = appRender(root, scene, "mid", size, "12:00", {"--no-steam"}),
                 evening = appRender(root, scene, "mid", size, "21:30", {"--no-steam"}),
                 small = appRender(root, scene, "mid", size, "03:00", {"--no-steam"});
    ASSERT_FALSE(noon.isNull() || evening.isNull() || small.isNull());
    EXPECT_LT(meanGrey(evening), 0.6 * meanGrey(noon)) << "the night is not darker than noon";
    EXPECT_NEAR(meanGrey(small), meanGrey(evening), 0.02 * meanGrey(evening) + 0.5)
        << "the night does not hold until dawn";
    // The desk under the lamp's shade against the desk between the stack and the turntable.
    const int r = std::max(2, size.width() / 80);
    const auto around = [&](const QPointF &p) {
        return QRect(p.toPoint() - QPoint(r, r), QSize(2 * r + 1, 2 * r + 1));
    };
    const QRect pool = around(plate({520, -10, 750})), away = around(plate({-250, -170, 750}));
    ASSERT_TRUE(evening.rect().contains(pool) && evening.rect().contains(away));
    EXPECT_GT(meanGrey(evening, pool), 1.5 * meanGrey(evening, away)) << "no pool of lamp light at night";

    const QSize wide(int(manifest.framings.at("wide").size[0]), int(manifest.framings.at("wide").size[1]));
    expectCityView(appRender(root, scene, "wide", wide, "12:00", {"--no-steam"}),
                   appRender(root, scene, "wide", wide, "21:30", {"--no-steam"}),
                   QImage(scene + "/wide/" + window["glass_mask"].toString()), "wide");
}

// Pixels where the placeholder art is one flat colour, away from its ring: a grid over the top band
// of the sleeve (the manifest's corners: top left, top right, bottom right, bottom left) and, by
// their art coordinates, the stack's top cover.
std::vector<QPoint> flatArtPixels(const QString &dir, const QJsonObject &framing)
{
    std::vector<QPoint> out;
    const QJsonArray corners = framing["cover"].toObject()["corners"].toArray();
    const auto corner = [&](int i) { return QPointF(corners[i][0].toDouble(), corners[i][1].toDouble()); };
    for (double v = 0.04; corners.size() == 4 && v <= 0.18; v += 0.01)
        for (double s = 0.04; s <= 0.96; s += 0.005) {
            const QPointF top = corner(0) + s * (corner(1) - corner(0));
            const QPointF bottom = corner(3) + s * (corner(2) - corner(3));
            out.push_back((top + v * (bottom - top)).toPoint());
        }
    const QString uvFile = framing["stack"].toObject()["art_uv"].toString();
    const QImage uv = uvFile.isEmpty() ? QImage() : QImage(dir + "/" + uvFile);
    for (int y = 0; y < uv.height(); ++y)
        for (int x = 0; x < uv.width(); ++x) {
            const QRgb t = uv.pixel(x, y);
            if (qBlue(t) == 255 && std::hypot(qRed(t) / 255.0 - 0.5, qGreen(t) / 255.0 - 0.5) > 0.38)
                out.emplace_back(x, y);
        }
    return out;
}

// The pixels just inside the edge of a framing's bounce box, but for those of the sleeves' art.
std::vector<QPoint> bounceEdgePixels(const QString &dir, const QJsonObject &framing)
{
    const QJsonArray box = framing["bounce"].toObject()["bbox"].toArray();
    const QRect r(box[0].toInt(), box[1].toInt(), box[2].toInt(), box[3].toInt());
    const QImage cover(dir + "/" + framing["cover"].toObject()["mask"].toString());
    const QString uvFile = framing["stack"].toObject()["art_uv"].toString();
    const QImage uv = uvFile.isEmpty() ? QImage() : QImage(dir + "/" + uvFile);
    std::vector<QPoint> out;
    const auto add = [&](int x, int y) {
        if (qGray(cover.pixel(x, y)) == 0 && (uv.isNull() || qBlue(uv.pixel(x, y)) == 0)) out.emplace_back(x, y);
    };
    for (int x = r.left(); x <= r.right(); ++x) add(x, r.top()), add(x, r.bottom());
    for (int y = r.top(); y <= r.bottom(); ++y) add(r.left(), y), add(r.right(), y);
    return out;
}

// Of `pixels`, those where two renders differ by more than two levels.
int differing(const QImage &a, const QImage &b, const std::vector<QPoint> &pixels)
{
    return int(std::count_if(pixels.begin(), pixels.end(), [&](QPoint p) {
        const QRgb x = a.pixel(p), y = b.pixel(p);
        return std::max({qAbs(qRed(x) - qRed(y)), qAbs(qGreen(x) - qGreen(y)), qAbs(qBlue(x) - qBlue(y))}) > 2;
    }));
}

// The room that ships, at each framing's full size: through the glass a city with structure by day
// that is not blown out, and lit windows at night; the sleeves' art sampled where it is.
TEST(ShippedRoom, EveryWindowShowsTheCityByDayAndItsLightsAtNight)
{
    // The placeholder art is a flat colour but for a ring in the middle: away from the ring the
    // sleeves must look the same under a wholly flat art (a wrong mip level brings the ring's colour).
    // The light the sleeve throws around it fades out before the edge of its box.
    QTemporaryDir root;
    QImage flat(64, 64, QImage::Format_RGB32);
    flat.fill(QColor(0x2a, 0x26, 0x22));
    ASSERT_TRUE(flat.save(root.filePath("flat.png")));
    const QString scene = QStringLiteral(TURNELO_SOURCE_DIR) + "/scenes/room";
    const QJsonObject framings =
        QJsonDocument::fromJson(readFile(scene + "/manifest.json")).object()["framings"].toObject();
    ASSERT_FALSE(framings.isEmpty());
    int windows = 0;
    for (auto it = framings.begin(); it != framings.end(); ++it) {
        const QJsonObject framing = it.value().toObject();
        const QString mask = framing["window"].toObject()["glass_mask"].toString();
        if (mask.isEmpty()) continue;
        ++windows;
        const QImage glass(scene + "/" + it.key() + "/" + mask);
        const QJsonArray size = framing["size"].toArray();
        const QSize full(size[0].toInt(), size[1].toInt());
        ASSERT_EQ(glass.size(), full) << it.key().toStdString();
        const QImage noon = appRender(root, scene, it.key(), full, "12:00", {"--no-steam"});
        expectCityView(noon, appRender(root, scene, it.key(), full, "21:30", {"--no-steam"}), glass,
                       it.key().toStdString());
        const QImage flatNoon = appRender(root, scene, it.key(), full, "12:00",
                                          {"--no-steam", "--no-bounce", "--cover", root.filePath("flat.png"),
                                           "--stack-cover", root.filePath("flat.png")});
        const std::vector<QPoint> flatArt = flatArtPixels(scene + "/" + it.key(), framing);
        EXPECT_GT(flatArt.size(), 1000u) << it.key().toStdString();
        EXPECT_EQ(differing(noon, flatNoon, flatArt), 0) << it.key().toStdString();
        EXPECT_EQ(differing(noon, flatNoon, bounceEdgePixels(scene + "/" + it.key(), framing)), 0)
            << it.key().toStdString() << ": the bounce's box shows";
    }
    EXPECT_GE(windows, 1) << "no framing sees the window";
}

}  // namespace
