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

TEST(PlateManifest, SnakeAndCamelCaseDecodeAlikeAndMapKeysStayVerbatim)
{
    QJsonObject snake = with(minimal(), {"per_preset_groups"}, QJsonArray{"lamp"});
    snake = with(snake, {"presets", "dia"},
                 QJsonObject{{"exposure_by_scenario", QJsonObject{{"living_room", 0.5}}}, {"sun_key", "noon"}});
    snake = with(snake, {"framings", "living_room"}, QJsonDocument::fromJson(fullFraming).object());

    QByteArray camelText = bytes(snake);
    const char *renames[] = {"per_preset_groups", "perPresetGroups", "sun_keys",   "sunKeys",   "yaw_axis", "yawAxis",
                             "center_world",      "centerWorld",     "glass_mask", "glassMask", "art_uv",   "artUv",
                             "point_px",          "pointPx"};
    for (size_t i = 0; i < std::size(renames); i += 2) camelText.replace(renames[i], renames[i + 1]);  // snake → camel
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
    using Kind = JSONValue::Kind;
    const auto decode = [](const char *text) {
        return JSONValue::decode(QJsonDocument::fromJson(QByteArray("[") + text + "]").array().at(0));
    };
    const std::pair<const char *, Kind> kinds[] = {{"2.5", Kind::number},         {"[1, 2, 3]", Kind::vector},
                                                   {R"({"a": 1})", Kind::object}, {R"({"a": {"b": 1}})", Kind::nested},
                                                   {R"("noon")", Kind::text},     {"true", Kind::other},
                                                   {"null", Kind::other},         {R"([1, "a"])", Kind::other}};
    for (const auto &[text, kind] : kinds) EXPECT_EQ(decode(text).kind(), kind) << text;
    const JSONValue mixed = decode(R"({"n": 1, "s": "x"})");
    ASSERT_EQ(mixed.kind(), Kind::nested);
    EXPECT_TRUE(mixed.nested().at("n").isNumber());
    EXPECT_TRUE(mixed.nested().at("s").isText());

    const QJsonObject odd = with(minimal(), {"presets", "dia"}, QJsonObject{{"room", true}});  // not an error
    EXPECT_EQ(PlateManifest::decode(bytes(odd)).presets.at("dia").at("room").kind(), Kind::other);
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
    EXPECT_EQ(mid.size, (PlateManifest::Vec2{64, 48}));
    EXPECT_EQ(mid.camera.P[2][3], 1);
    EXPECT_EQ(still.clock.size(), 4u);
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
