#include "core/scene/PlateManifest.h"
#include "TestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>

namespace {

QJsonObject minimal() { return QJsonDocument::fromJson(testsupport::minimalManifest()).object(); }
QByteArray bytes(const QJsonObject &o) { return QJsonDocument(o).toJson(); }

std::string errorOf(const QByteArray &json)
{
    try {
        PlateManifest::decode(json);
    } catch (const SceneError &e) {
        return e.what();
    }
    return {};
}

const char *fullFraming = R"({
  "size": [1920, 1080],
  "camera": {"P": [[1,0,0,0],[0,1,0,0],[0,0,0,1]]},
  "cover": {"corners": [[1,1],[9,1],[9,9],[1,9]], "mask": "masks/cover.png"},
  "label": {"corners": [[1,1],[9,1],[9,9],[1,9]], "mask": "masks/label.png"},
  "tonearm": {"pivot": [1,2,3], "yaw_axis": [0,0,1], "lift_axis": [1,0,0], "yaw_rest": -5,
              "yaw_lead_in": 18, "yaw_run_out": 38, "lift_max": 4, "yaw_samples": [0, 10, 20, 30, 40],
              "bbox": [10, 20, 300, 200], "shadow": true, "reflection_bbox": [1, 2, 3, 4]},
  "front": {"bbox": [0, 0, 100, 50]},
  "steam": {"point_px": [800, 400]},
  "record": {"corners": [[1,1],[9,1],[9,9],[1,9]], "center_world": [0, 0, 50], "radius_mm": 150,
             "label_radius_mm": 50, "groove_outer_mm": 146, "groove_inner_mm": 60,
             "bbox": [5, 6, 7, 8], "mask": "masks/record.png"},
  "bounce": {"bbox": [1, 1, 2, 2]},
  "panel": {"led33": {"center_px": [10, 20], "radius_px": 3, "color": [1, 0.2, 0.1]},
            "strobe": {"mask": "masks/strobe.png", "dots": 180, "color": [1, 0.5, 0.2]}},
  "window": {"glass_mask": "masks/glass.png", "dust_cover_transmission": 0.4},
  "stack": {"art_uv": "masks/stack_uv.png", "bbox": [1, 2, 3, 4]}
})";

}  // namespace

TEST(PlateManifest, SnakeAndCamelCaseDecodeAlikeAndMapKeysStayVerbatim)
{
    QJsonObject snake = minimal();
    snake["per_preset_groups"] = QJsonArray{"lamp"};
    QJsonObject presets = snake["presets"].toObject();
    presets["dia"] = QJsonObject{{"exposure_by_scenario", QJsonObject{{"living_room", 0.5}}}, {"sun_key", "noon"}};
    snake["presets"] = presets;
    QJsonObject framings = snake["framings"].toObject();
    framings["living_room"] = QJsonDocument::fromJson(fullFraming).object();
    snake["framings"] = framings;

    QByteArray camelText = bytes(snake);
    const std::pair<const char *, const char *> renames[] = {{"per_preset_groups", "perPresetGroups"},
                                                             {"sun_keys", "sunKeys"},
                                                             {"yaw_axis", "yawAxis"},
                                                             {"center_world", "centerWorld"},
                                                             {"glass_mask", "glassMask"},
                                                             {"art_uv", "artUv"},
                                                             {"point_px", "pointPx"}};
    for (const auto &[from, to] : renames) camelText.replace(from, to);
    ASSERT_TRUE(camelText.contains("glassMask"));

    const PlateManifest a = PlateManifest::decode(bytes(snake));
    const PlateManifest b = PlateManifest::decode(camelText);
    EXPECT_EQ(a.sunKeys, b.sunKeys);
    EXPECT_EQ(a.perPresetGroups, b.perPresetGroups);
    ASSERT_TRUE(a.framings.count("living_room"));  // framing key not converted
    const auto &fa = a.framings.at("living_room");
    const auto &fb = b.framings.at("living_room");
    ASSERT_TRUE(fa.tonearm && fb.tonearm);
    EXPECT_EQ(fa.tonearm->yawAxis, fb.tonearm->yawAxis);
    EXPECT_EQ(fa.tonearm->yawSamples.size(), 5u);
    EXPECT_EQ(fa.tonearm->shadow, std::optional<bool>(true));
    EXPECT_FALSE(fa.tonearm->reflection.has_value());
    ASSERT_TRUE(fa.record && fb.record);
    EXPECT_EQ(fa.record->grooveInnerMm, 60);
    EXPECT_EQ(fa.window->glassMask, "masks/glass.png");
    EXPECT_EQ(fb.window->glassMask, "masks/glass.png");
    EXPECT_FALSE(fa.window->dustCoverMask.has_value());
    EXPECT_EQ(fa.stack->artUv, fb.stack->artUv);
    EXPECT_EQ(fa.panel->strobe->dots, 180);
    EXPECT_FALSE(fa.panel->led45.has_value());
    EXPECT_EQ(fa.steam->pointPx, (PlateManifest::Vec2{800, 400}));

    const auto &dia = a.presets.at("dia");
    ASSERT_TRUE(dia.count("exposure_by_scenario"));  // preset keys not converted
    EXPECT_TRUE(dia.at("exposure_by_scenario").isObject());
    EXPECT_EQ(dia.at("exposure_by_scenario").object().at("living_room"), 0.5);
}

TEST(PlateManifest, JSONValueCasesInOrder)
{
    const auto decode = [](const char *text) {
        return JSONValue::decode(QJsonDocument::fromJson(QByteArray("[") + text + "]").array().at(0));
    };
    EXPECT_EQ(decode("2.5").kind(), JSONValue::Kind::number);
    EXPECT_EQ(decode("[1, 2, 3]").kind(), JSONValue::Kind::vector);
    EXPECT_EQ(decode("{\"a\": 1}").kind(), JSONValue::Kind::object);
    EXPECT_EQ(decode("{\"a\": {\"b\": 1}}").kind(), JSONValue::Kind::nested);
    const JSONValue mixed = decode("{\"n\": 1, \"s\": \"x\"}");
    ASSERT_EQ(mixed.kind(), JSONValue::Kind::nested);
    EXPECT_TRUE(mixed.nested().at("n").isNumber());
    EXPECT_TRUE(mixed.nested().at("s").isText());
    EXPECT_EQ(decode("\"noon\"").kind(), JSONValue::Kind::text);
    EXPECT_EQ(decode("true").kind(), JSONValue::Kind::other);
    EXPECT_EQ(decode("null").kind(), JSONValue::Kind::other);
    EXPECT_EQ(decode("[1, \"a\"]").kind(), JSONValue::Kind::other);

    QJsonObject m = minimal();
    QJsonObject presets = m["presets"].toObject();
    presets["dia"] = QJsonObject{{"room", true}};  // not an error
    m["presets"] = presets;
    EXPECT_EQ(PlateManifest::decode(bytes(m)).presets.at("dia").at("room").kind(), JSONValue::Kind::other);
}

TEST(PlateManifest, PresetOrderDisplayNamesAndAStillRoom)
{
    QJsonObject m = minimal();
    m["presets"] = QJsonObject{{"noite", QJsonObject{}},
                               {"manha", QJsonObject{}},
                               {"zz", QJsonObject{}},
                               {"aa", QJsonObject{}},
                               {"Zulu", QJsonObject{}}};
    EXPECT_EQ(PlateManifest::decode(bytes(m)).presetOrder(), (QStringList{"manha", "noite", "Zulu", "aa", "zz"}));
    EXPECT_EQ(PlateManifest::framingDisplayName("top"), "Top-down");
    EXPECT_EQ(PlateManifest::framingDisplayName("desk corner"), "Desk Corner");
    EXPECT_EQ(PlateManifest::framingDisplayName("LOFT"), "Loft");

    // A still room: none of the moving parts' sections.
    const PlateManifest still = PlateManifest::decode(testsupport::minimalManifest());
    const auto &mid = still.framings.at("mid");
    EXPECT_FALSE(mid.tonearm || mid.record || mid.panel || mid.window || mid.steam || mid.stack || mid.bounce ||
                 mid.front);
    EXPECT_EQ(mid.size, (PlateManifest::Vec2{64, 48}));
    EXPECT_EQ(mid.camera.P[2][3], 1);
    EXPECT_EQ(still.clock.size(), 4u);
}

TEST(PlateManifest, InvalidInputIsRejectedWholeNamingTheField)
{
    QJsonObject m = minimal();
    m["contract"] = "1";
    EXPECT_EQ(errorOf(bytes(m)), "contract: esperava inteiro, achei texto");
    m["contract"] = 1.5;
    EXPECT_NE(errorOf(bytes(m)).find("contract"), std::string::npos);

    m = minimal();
    m.remove("clock");
    EXPECT_EQ(errorOf(bytes(m)), "clock: campo obrigatório ausente");

    m = minimal();
    QJsonObject framings = m["framings"].toObject();
    QJsonObject mid = framings["mid"].toObject();
    mid["record"] = QJsonObject{{"corners", QJsonArray{}}};
    framings["mid"] = mid;
    m["framings"] = framings;
    EXPECT_EQ(errorOf(bytes(m)), "framings.mid.record.corners: esperava 4 pontos, achei 0");

    m = minimal();
    mid = m["framings"].toObject()["mid"].toObject();
    mid["size"] = QJsonArray{64};
    m["framings"] = QJsonObject{{"mid", mid}};
    EXPECT_EQ(errorOf(bytes(m)), "framings.mid.size: esperava 2 números, achei 1");

    const QByteArray full = testsupport::minimalManifest();
    EXPECT_NE(errorOf(full.left(full.size() / 2)).find("JSON ilegível"), std::string::npos);
    EXPECT_FALSE(errorOf("\x89PNG garbage").empty());
    EXPECT_FALSE(errorOf("[1, 2]").empty());
    EXPECT_FALSE(errorOf("").empty());
}
