#include "../render/RenderTestSupport.h"

#include "TestSupport.h"

#include <QFile>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <cmath>

using namespace rendertest;
using namespace testsupport;

namespace {

const bool envReady = (useLavapipeAndPrivateLog(), true);

double luma(const QImage &image, const QRect &area)
{
    double sum = 0;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x) sum += qGray(image.pixel(x, y));
    return sum / (double(area.width()) * area.height());
}

QPointF project(const QJsonArray &P, double x, double y, double z)
{
    double h[3];
    for (int r = 0; r < 3; ++r) {
        const QJsonArray row = P[r].toArray();
        h[r] = row[0].toDouble() * x + row[1].toDouble() * y + row[2].toDouble() * z + row[3].toDouble();
    }
    return {h[0] / h[2], h[1] / h[2]};
}

// Centre of a grey mask's coverage, in plate pixels (pixel centres at i + 0.5).
QPointF maskCentre(const QImage &mask)
{
    double sx = 0, sy = 0, sw = 0;
    for (int y = 0; y < mask.height(); ++y)
        for (int x = 0; x < mask.width(); ++x) {
            const double w = qGray(mask.pixel(x, y)) / 255.0;
            sx += w * (x + 0.5);
            sy += w * (y + 0.5);
            sw += w;
        }
    return sw > 0 ? QPointF(sx / sw, sy / sw) : QPointF(-1, -1);
}

// Share of the glass mask's pixels (coverage over one half) whose grey is above `level` (0…1), and the
// grey's mean and deviation there (0…1).
struct GlassView {
    double mean = 0, deviation = 0, above = 0;
};

GlassView glassView(const QImage &image, const QImage &mask, double level)
{
    double sum = 0, squares = 0, count = 0, bright = 0;
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x) {
            if (qGray(mask.pixel(x, y)) < 128) continue;
            const double v = qGray(image.pixel(x, y)) / 255.0;
            sum += v;
            squares += v * v;
            count += 1;
            bright += v > level ? 1 : 0;
        }
    if (count == 0) return {};
    const double mean = sum / count;
    return {mean, std::sqrt(std::max(0.0, squares / count - mean * mean)), bright / count};
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
    ASSERT_TRUE(root.isValid());
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

    // The camera matrix puts the record's centre and the lamp where Blender drew them.
    QFile file(scene + "/manifest.json");
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QJsonObject manifest = QJsonDocument::fromJson(file.readAll()).object();
    const QJsonObject mid = manifest["framings"].toObject()["mid"].toObject();
    // The view through the window is its own group in every preset, and the open lid stands in front
    // of the window in the wide framing.
    EXPECT_EQ(manifest["view"].toObject()["keys"].toArray().size(), 4);
    for (const char *preset : {"manha", "dia", "tarde", "noite"})
        EXPECT_GT(manifest["presets"].toObject()[preset].toObject()["view"].toDouble(), 0.0) << preset;
    const QJsonObject window = manifest["framings"].toObject()["wide"].toObject()["window"].toObject();
    ASSERT_TRUE(window.contains("dust_cover_mask"));
    EXPECT_GT(maskCentre(QImage(scene + "/wide/" + window["dust_cover_mask"].toString())).x(), 0.0);
    const QJsonArray P = mid["camera"].toObject()["P"].toArray();
    const QJsonArray c = mid["record"].toObject()["center_world"].toArray();
    const QPointF centre = project(P, c[0].toDouble(), c[1].toDouble(), c[2].toDouble());
    const QPointF drawn = maskCentre(QImage(scene + "/mid/masks/label.png"));
    EXPECT_LT(std::hypot(centre.x() - drawn.x(), centre.y() - drawn.y()), 1.0)
        << "label centre projected at " << centre.x() << "," << centre.y() << ", drawn at " << drawn.x() << ","
        << drawn.y();

    const QString app = QStringLiteral(TURNELO_BINARY_DIR) + "/turnelo";
    const QStringList env{"XDG_STATE_HOME=" + root.filePath("state"), "XDG_DATA_HOME=" + root.filePath("data"),
                          "XDG_CONFIG_HOME=" + root.filePath("config")};
    const QJsonArray size = mid["size"].toArray();
    const QSize plate(size[0].toInt(), size[1].toInt());
    auto render = [&](const QString &time, const QString &framing = QStringLiteral("mid")) {
        const QString out = root.filePath(framing + "-" + QString(time).remove(':') + ".png");
        const ToolResult r =
            runTool(app,
                    {"render", scene, out, "--framing", framing, "--size",
                     QStringLiteral("%1x%2").arg(plate.width()).arg(plate.height()), "--time", time, "--no-steam"},
                    env, 120000);
        EXPECT_EQ(r.exitCode, 0) << time.toStdString() << ": " << r.err.toStdString();
        return QImage(out);
    };
    const QImage noon = render("12:00"), evening = render("21:30"), small = render("03:00");
    ASSERT_EQ(noon.size(), plate);
    ASSERT_EQ(evening.size(), plate);
    const QRect all(QPoint(0, 0), plate);
    EXPECT_LT(luma(evening, all), 0.6 * luma(noon, all)) << "the night is not darker than noon";
    EXPECT_NEAR(luma(small, all), luma(evening, all), 0.02 * luma(evening, all) + 0.5)
        << "the night does not hold until dawn";
    // The desk under the lamp's shade against the desk between the stack and the turntable.
    const QPointF pool = project(P, 520, -10, 750), away = project(P, -250, -170, 750);
    const int r = std::max(2, plate.width() / 80);
    const QRect poolArea(pool.toPoint() - QPoint(r, r), QSize(2 * r + 1, 2 * r + 1));
    const QRect awayArea(away.toPoint() - QPoint(r, r), QSize(2 * r + 1, 2 * r + 1));
    ASSERT_TRUE(all.contains(poolArea) && all.contains(awayArea));
    EXPECT_GT(luma(evening, poolArea), 1.5 * luma(evening, awayArea)) << "no pool of lamp light at night";

    // Through the wide framing's glass: buildings against the sky at noon, not a white sheet; lit
    // windows and street lamps at night.
    const QImage glass(scene + "/wide/" + window["glass_mask"].toString());
    const GlassView day = glassView(render("12:00", "wide"), glass, 0.98);
    const GlassView night = glassView(render("21:30", "wide"), glass, 0.3);
    EXPECT_GE(day.deviation, 0.12) << "the noon view has no structure";
    EXPECT_LT(day.above, 0.05) << "the noon view is blown out";
    EXPECT_GE(night.above, 0.01) << "no lights in the night view";
    EXPECT_LT(night.mean, day.mean);
}

}  // namespace
