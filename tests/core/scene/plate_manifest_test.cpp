#include "core/scene/PlateManifest.h"
#include "TestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>

namespace {

QJsonObject minimal() { return QJsonDocument::fromJson(testsupport::minimalManifest()).object(); }
QByteArray bytes(const QJsonObject &o) { return QJsonDocument(o).toJson(); }

// `o` with o[path[0]][path[1]]… set to `value`.
QJsonObject with(QJsonObject o, QStringList path, const QJsonValue &value)
{
    const QString key = path.takeFirst();
    o[key] = path.isEmpty() ? value : QJsonValue(with(o[key].toObject(), path, value));
    return o;
}

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

TEST(PlateManifest, SnakeCaseFieldsDecodeAndNamesStayVerbatim)
{
    QJsonObject m = with(minimal(), {"per_preset_groups"}, QJsonArray{"lamp"});
    m = with(m, {"presets", "dia"}, QJsonObject{{"exposure_by_scenario", QJsonObject{{"living_room", 0.5}}}});
    m = with(m, {"framings", "living_room"}, QJsonDocument::fromJson(fullFraming).object());
    const PlateManifest a = PlateManifest::decode(bytes(m));
    EXPECT_EQ(a.perPresetGroups, std::optional(QStringList{"lamp"}));
    ASSERT_TRUE(a.framings.count("living_room"));  // framing key not converted
    const auto &fa = a.framings.at("living_room");
    ASSERT_TRUE(fa.tonearm && fa.record && fa.window && fa.stack && fa.panel && fa.steam);
    EXPECT_EQ(fa.tonearm->yawAxis, (PlateManifest::Vec3{0, 0, 1}));
    EXPECT_EQ(fa.tonearm->yawSamples.size(), 5u);
    EXPECT_EQ(fa.tonearm->shadow, std::optional<bool>(true));
    EXPECT_FALSE(fa.tonearm->reflection.has_value());
    EXPECT_EQ(fa.record->grooveInnerMm, 60);
    EXPECT_EQ(fa.window->glassMask, "masks/glass.png");
    EXPECT_FALSE(fa.window->dustCoverMask.has_value());
    EXPECT_EQ(fa.stack->artUv, "masks/stack_uv.png");
    EXPECT_EQ(fa.panel->strobe->dots, 180);
    EXPECT_FALSE(fa.panel->led45.has_value());
    EXPECT_EQ(fa.steam->pointPx, (PlateManifest::Vec2{800, 400}));

    const auto &dia = a.presets.at("dia");
    ASSERT_TRUE(dia.count("exposure_by_scenario"));  // preset keys not converted
    EXPECT_EQ(dia.at("exposure_by_scenario").object().at("living_room"), 0.5);
}

// A mixed object is nested; a Boolean or a mixed array is no error, only nothing a reader takes.
TEST(PlateManifest, PresetValuesOfAnyShapeDecode)
{
    const QJsonObject dia{
        {"record_light", QJsonObject{{"n", 1}, {"s", "x"}}}, {"room", true}, {"sun", QJsonArray{1, "a"}}};
    const PlateManifest m = PlateManifest::decode(bytes(with(minimal(), {"presets", "dia"}, dia)));
    const auto &values = m.presets.at("dia");
    ASSERT_TRUE(values.at("record_light").isNested());
    EXPECT_TRUE(values.at("record_light").nested().at("n").isNumber());
    EXPECT_TRUE(values.at("record_light").nested().at("s").isText());
    EXPECT_EQ(values.at("room").kind(), JSONValue::Kind::other);
    EXPECT_EQ(values.at("sun").kind(), JSONValue::Kind::other);
}

TEST(PlateManifest, PresetOrderDisplayNamesAndAStillRoom)
{
    QJsonObject presets;
    for (const char *name : {"noite", "manha", "zz", "aa", "Zulu"}) presets[name] = QJsonObject();
    EXPECT_EQ(PlateManifest::decode(bytes(with(minimal(), {"presets"}, presets))).presetOrder(),
              (QStringList{"manha", "noite", "Zulu", "aa", "zz"}));
    EXPECT_EQ(PlateManifest::framingDisplayName("top"), "Top-down");
    EXPECT_EQ(PlateManifest::framingDisplayName("desk corner"), "Desk Corner");
    EXPECT_EQ(PlateManifest::framingDisplayName("LOFT"), "Loft");

    // A still room: none of the moving parts' sections.
    const PlateManifest still = PlateManifest::decode(testsupport::minimalManifest());
    const auto &mid = still.framings.at("mid");
    EXPECT_FALSE(mid.tonearm || mid.record || mid.panel || mid.window || mid.steam || mid.stack || mid.bounce ||
                 mid.front);
}

TEST(PlateManifest, InvalidInputIsRejectedWholeNamingTheField)
{
    EXPECT_EQ(errorOf(bytes(with(minimal(), {"contract"}, "1"))), "contract: esperava inteiro, achei texto");
    EXPECT_NE(errorOf(bytes(with(minimal(), {"contract"}, 1.5))).find("contract"), std::string::npos);
    QJsonObject m = minimal();
    m.remove("clock");
    EXPECT_EQ(errorOf(bytes(m)), "clock: campo obrigatório ausente");
    EXPECT_EQ(errorOf(bytes(with(minimal(), {"framings", "mid", "record"}, QJsonObject{{"corners", QJsonArray{}}}))),
              "framings.mid.record.corners: esperava 4 pontos, achei 0");
    EXPECT_EQ(errorOf(bytes(with(minimal(), {"framings", "mid", "size"}, QJsonArray{64}))),
              "framings.mid.size: esperava 2 números, achei 1");

    const QByteArray full = testsupport::minimalManifest();
    EXPECT_NE(errorOf(full.left(full.size() / 2)).find("JSON ilegível"), std::string::npos);
    for (const char *bad : {"\x89PNG garbage", "[1, 2]", ""}) EXPECT_FALSE(errorOf(bad).empty()) << bad;
}
