#pragma once

// A tiny scene written by each test into a temporary folder, shared by the scene tests.

#include "../render/RenderTestSupport.h"

#include "TestSupport.h"
#include "scene/LoadedScene.h"
#include "scene/OfflineRender.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <functional>
#include <gtest/gtest.h>
#include <memory>

namespace scenetest {

using namespace rendertest;

// `o` with o[path[0]][path[1]]… set to `value`.
inline QJsonObject with(QJsonObject o, QStringList path, const QJsonValue &value)
{
    const QString key = path.takeFirst();
    o[key] = path.isEmpty() ? value : QJsonValue(with(o[key].toObject(), path, value));
    return o;
}

// 64×48 plates, one preset per light, a record without passes, a tonearm whose sprites are
// missing, a panel with one LED and a strobe map in the bottom-left corner, a stack.
class SmallScene : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(root.isValid());
        dir = root.filePath("wide");
        writeExr(dir + "/light/room.exr", 64, 48, [](int, int) { return std::array<float, 4>{0.2f, 0.2f, 0.2f, 1}; });
        writeExr(dir + "/light/lamp.exr", 64, 48, [](int x, int) {
            return std::array<float, 4>{x / 64.0f, 0.1f, 0, 1};
        });
        // A black 64×48 picture saved under masks/, `box` painted by f(x, y).
        const auto paint = [&](QImage::Format format, QRect box, auto f, QStringList names) {
            QImage image(64, 48, format);
            image.fill(0);
            for (int y = box.top(); y <= box.bottom(); ++y)
                for (int x = box.left(); x <= box.right(); ++x) image.setPixel(x, y, f(x, y));
            for (const QString &name : names) image.save(dir + "/masks/" + name);
        };
        QDir().mkpath(dir + "/masks");
        paint(QImage::Format_Grayscale8, {5, 10, 10, 10}, [](int, int) { return qRgb(255, 255, 255); },
              {"cover.png", "label.png"});
        // The stack's top cover covers plate (40…59, 36…45): art u, v in red and green, coverage in blue.
        paint(QImage::Format_RGB32, {40, 36, 20, 10},
              [](int x, int y) { return qRgb((x - 40) * 12, (y - 36) * 25, 255); }, {"stack_uv.png"});
        // The strobe band: plate (1…5, 42…46), away from everything else that moves.
        paint(QImage::Format_RGB32, {1, 42, 5, 5}, [](int x, int) { return qRgb(x * 40, 255, 128); }, {"strobe.png"});
    }
    QJsonObject manifestJson()
    {
        const QByteArray json = R"({
          "contract": 1, "sun_keys": ["noon"], "groups": ["room", "lamp"],
          "tonemap": {"contrast": 1.0, "gamma": 1.0, "offset": 0.0},
          "presets": {"dia": {"room": 1}, "noite": {"room": 0.2, "lamp": [1, 1, 1]}},
          "clock": [["08:00", "dia"], ["20:00", "noite"]],
          "framings": {"wide": {
            "size": [64, 48],
            "camera": {"P": [[1, 0, 0, 32], [0, -1, 0, 24], [0, 0, 0, 1]]},
            "cover": {"corners": [[5, 10], [15, 10], [15, 20], [5, 20]], "mask": "masks/cover.png"},
            "label": {"corners": [[40, 20], [50, 20], [50, 30], [40, 30]], "mask": "masks/label.png"},
            "record": {"corners": [[30, 10], [60, 10], [60, 40], [30, 40]], "center_world": [13, 1, 0],
                       "radius_mm": 150, "label_radius_mm": 50, "groove_outer_mm": 146, "groove_inner_mm": 60,
                       "bbox": [30, 10, 30, 30], "mask": "masks/record.png"},
            "tonearm": {"pivot": [20, 15, 0], "yaw_axis": [0, 0, -1], "lift_axis": [-1, 0, 0], "yaw_rest": 0,
                        "yaw_lead_in": 10, "yaw_run_out": 30, "lift_max": 6, "plane_z": 0,
                        "yaw_samples": [0, 15, 30], "bbox": [30, 0, 30, 30], "shadow": true},
            "panel": {"led33": {"center_px": [20, 40], "radius_px": 2, "color": [3, 0.2, 0.1]},
                      "strobe": {"mask": "masks/strobe.png", "dots": 12, "color": [1, 0.3, 0.1]}},
            "steam": {"point_px": [10, 44]},
            "stack": {"art_uv": "masks/stack_uv.png", "bbox": [40, 36, 20, 10]}
          }}})";
        return QJsonDocument::fromJson(json).object();
    }
    // Writes the manifest, changed first by `edit` (root object, the "wide" framing).
    PlateManifest manifest(const std::function<void(QJsonObject &, QJsonObject &)> &edit = {})
    {
        QJsonObject json = manifestJson();
        if (edit) {
            QJsonObject wide = json["framings"].toObject()["wide"].toObject();
            edit(json, wide);
            json = with(json, {"framings", "wide"}, wide);
        }
        const QByteArray bytes = QJsonDocument(json).toJson();
        testsupport::writeFile(root.filePath("manifest.json"), bytes);
        return PlateManifest::decode(bytes);
    }
    // Writes the manifest and returns options for a render of it at that size and preset.
    OfflineRender::Options renderOf(int width, int height, const QString &preset)
    {
        manifest();
        OfflineRender::Options o;
        std::tie(o.sceneDir, o.width, o.height, o.preset) = std::tuple(root.path(), width, height, preset);
        return o;
    }
    // Renders to `name` in the scene folder and reads the picture back (null when the render failed).
    QImage rendered(OfflineRender::Options o, const QString &name)
    {
        o.output = root.filePath(name);
        const QString error = OfflineRender::render(o);
        EXPECT_EQ(error, "");
        return error.isEmpty() ? QImage(o.output) : QImage();
    }
    // The scene assembled on a renderer of its own.
    LoadedScene &load(const PlateManifest &m, const QString &framing = "wide")
    {
        renderer = SceneRenderer::create();
        EXPECT_TRUE(renderer);
        auto result = SceneAssembly::load(*renderer, root.path(), m, framing);
        if (auto *why = std::get_if<QString>(&result)) throw std::runtime_error(why->toStdString());
        scene = std::move(std::get<std::unique_ptr<LoadedScene>>(result));
        return *scene;
    }
    QTemporaryDir root;
    QString dir;
    std::unique_ptr<SceneRenderer> renderer;
    std::unique_ptr<LoadedScene> scene;  // declared after the renderer: it goes first
};

}  // namespace scenetest
