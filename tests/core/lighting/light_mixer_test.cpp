#include "core/lighting/LightMixer.h"
#include "TestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <gtest/gtest.h>
#include <set>

namespace {

QJsonObject json(const QByteArray &text) { return QJsonDocument::fromJson(text).object(); }

PlateManifest manifestWith(const QJsonObject &changes)
{
    QJsonObject m = json(testsupport::minimalManifest());
    for (auto it = changes.begin(); it != changes.end(); ++it) m[it.key()] = it.value();
    return PlateManifest::decode(QJsonDocument(m).toJson());
}

QDateTime at(int h, int m, int s = 0) { return QDateTime(QDate(2026, 3, 10), QTime(h, m, s)); }

using Times = std::vector<std::pair<const char *, const char *>>;  // "hh:mm", preset

QJsonArray clock(const Times &entries)
{
    QJsonArray a;
    for (const auto &[t, p] : entries) a.append(QJsonArray{t, p});
    return a;
}

const LightMixer::Term *term(const LightMixer &mixer, const QString &preset, const QString &plate)
{
    for (const auto &t : mixer.presets.at(preset).recipe)
        if (t.plate == plate) return &t;
    return nullptr;
}

}  // namespace

TEST(LightMixer, ClockBlendAndKeyframes)
{
    const LightMixer mixer(manifestWith({{"clock", clock({{"06:00", "manha"}, {"18:00", "noite"}})}}));
    EXPECT_EQ(mixer.clockBlend(at(6, 0)), (Blend{{"manha", 1.0}}));
    EXPECT_EQ(mixer.clockBlend(at(12, 0)), (Blend{{"manha", 0.5}, {"noite", 0.5}}));
    // 03:00 lies 9 h into the 12 h night gap: u = 0.75, smoothstep 0.84375.
    EXPECT_EQ(mixer.clockBlend(at(3, 0)), (Blend{{"manha", 0.84375}, {"noite", 0.15625}}));
    // Weights of 0.0001 or less are dropped.
    const Blend justAfter = mixer.clockBlend(at(6, 0, 30));
    ASSERT_EQ(justAfter.size(), 1u);
    EXPECT_NEAR(justAfter.at("manha"), 1.0, 1e-5);

    const LightMixer single(manifestWith({{"clock", clock({{"09:00", "dia"}})}}));
    EXPECT_EQ(single.clockBlend(at(23, 59)), (Blend{{"dia", 1.0}}));
    const LightMixer none(manifestWith({{"clock", QJsonArray{}}}));
    EXPECT_EQ(none.clockBlend(at(12, 0)), (Blend{{"manha", 1.0}}));

    // Malformed times and unknown presets are left out.
    const Times messy = {{"6:30", "manha"}, {"06:30", "dia"},     {"06:30:00", "tarde"}, {"6", "tarde"},
                         {"x:30", "tarde"}, {"07:00", "nowhere"}, {"24:00", "noite"}};
    const LightMixer parsed(manifestWith({{"clock", clock(messy)}}));
    std::vector<std::pair<double, QString>> keyframes;
    for (const auto &k : parsed.keyframes) keyframes.emplace_back(k.minute, k.preset);
    // Stable: manifest order on equal minutes.
    EXPECT_EQ(keyframes, (std::vector<std::pair<double, QString>>{{390, "manha"}, {390, "dia"}, {1440, "noite"}}));
}

TEST(LightMixer, RecipesFollowGroupsKeysAndExposure)
{
    const LightMixer mixer(manifestWith(json(R"({
        "presets": {
            "dia": {"room": [1, 0.5, 0.25, 9], "sun": 2, "exposure": 1, "exposure_by_scenario": {"loft": 1},
                    "lamp_key": "warm", "vignette": 0.3, "grain": 0.1},
            "noite": {"room": 0, "sun": [1, 1], "sun_key": "moon", "lamp": [0, 0, 0], "fill": [0, 0.5, 0]}},
        "groups": ["room", "sun", "lamp", "fill"], "sun_keys": ["noon", "dusk"], "per_preset_groups": ["lamp"],
        "scenario": "loft", "view": {}, "clock": []})")));
    // gain 2^(1+1) = 4
    const auto *room = term(mixer, "dia", "room");
    ASSERT_NE(room, nullptr);
    EXPECT_EQ(room->weight, (std::array<double, 3>{4, 2, 1}));
    const auto *sun = term(mixer, "dia", "sun_noon");
    ASSERT_NE(sun, nullptr);
    EXPECT_EQ(sun->weight, (std::array<double, 3>{8, 8, 8}));
    EXPECT_NE(term(mixer, "dia", "lamp_warm"), nullptr);                  // per-preset group with its own key
    EXPECT_EQ(mixer.presets.at("dia").recipe.front().plate, "view_dia");  // view group switched on by the extension
    EXPECT_DOUBLE_EQ(mixer.presets.at("dia").vignette, 0.3);

    // 0 and [0,0,0] add nothing; a two-number vector falls back to the default factor (0 for sun);
    // a light of one channel is a light.
    const auto &night = mixer.presets.at("noite").recipe;
    ASSERT_EQ(night.size(), 2u);
    EXPECT_EQ(night[0].plate, "view_noite");
    EXPECT_EQ(night[1].plate, "fill");
    EXPECT_EQ(night[1].weight, (std::array<double, 3>{0, 0.5, 0}));
    EXPECT_EQ(term(mixer, "dia", "fill"), nullptr);

    EXPECT_DOUBLE_EQ(mixer.vignette({{"dia", 0.5}, {"gone", 1}}), 0.15);
    EXPECT_DOUBLE_EQ(mixer.grain({{"dia", 2}}), 0.2);
}

TEST(LightMixer, CrossFadeTicksAndModes)
{
    LightMixer mixer(manifestWith({}));
    EXPECT_EQ(mixer.modeBlend("noite", at(12, 0)), (Blend{{"noite", 1.0}}));
    EXPECT_EQ(mixer.modeBlend("lua", at(12, 0)), mixer.clockBlend(at(12, 0)));  // preset the scene lacks

    mixer.startCrossFade({{"dia", 1.0}}, 100.0);  // first light: no fade
    EXPECT_EQ(mixer.value(100.0), (Blend{{"dia", 1.0}}));
    mixer.startCrossFade({{"noite", 1.0}}, 200.0);
    EXPECT_EQ(mixer.value(200.75), (Blend{{"dia", 0.5}, {"noite", 0.5}}));
    EXPECT_EQ(mixer.value(201.5), (Blend{{"noite", 1.0}}));

    // Auto mode wants the presets of ten minutes ahead: at 09:55, noite's keyframe at 10:05.
    LightMixer autoMixer(manifestWith({{"clock", clock({{"06:00", "manha"}, {"10:00", "dia"}, {"10:05", "noite"}})}}));
    autoMixer.tick(at(9, 55));
    EXPECT_TRUE(autoMixer.wantedPresets("auto", at(9, 55)).contains("noite"));

    // Drift of at most 0.002 is not applied.
    LightMixer drift(manifestWith({}));
    ASSERT_TRUE(drift.tick(at(12, 0)));
    EXPECT_FALSE(drift.tick(at(12, 0, 1)));
    EXPECT_TRUE(drift.tick(at(12, 30)));
    EXPECT_TRUE(drift.settle([](const QString &) { return true; }, 0));
    EXPECT_EQ(drift.value(0), drift.current);
}

// A change of light never shows presets whose mixes are not built: the old light stays on screen,
// and wanted, until the new one is ready; only then does the 1.5 s fade start.
TEST(LightMixer, AMoveWaitsForItsMixesAndKeepsWhatIsShown)
{
    LightMixer mixer(manifestWith({}));
    std::set<QString> built{"dia"};
    const auto ready = [&](const QString &p) { return built.count(p) > 0; };
    mixer.aim({{"dia", 1.0}}, true);  // the first light: at once
    EXPECT_EQ(mixer.value(10), (Blend{{"dia", 1.0}}));

    mixer.aim({{"noite", 1.0}}, true);
    EXPECT_FALSE(mixer.settle(ready, 10));
    EXPECT_EQ(mixer.value(12), (Blend{{"dia", 1.0}})) << "the light moved before its mix was built";
    EXPECT_EQ(mixer.wantedPresets("noite", at(12, 0)), (QStringList{"dia", "noite"}));

    built.insert("noite");
    EXPECT_TRUE(mixer.settle(ready, 20));
    EXPECT_DOUBLE_EQ(mixer.value(20.75).at("noite"), 0.5) << "the fade starts when the mix is ready";
    EXPECT_EQ(mixer.wantedPresets("noite", at(12, 0)), (QStringList{"dia", "noite"}));

    // Woken after hours: the clock's new light waits for its mix too, the shown one stays wanted.
    LightMixer woken(manifestWith({}));
    built = {"noite"};
    ASSERT_TRUE(woken.tick(at(1, 0)));
    ASSERT_TRUE(woken.tick(at(12, 0)));
    EXPECT_FALSE(woken.settle(ready, 30));
    EXPECT_EQ(woken.value(30), woken.clockBlend(at(1, 0)));
    for (const auto &[p, w] : woken.clockBlend(at(1, 0)))
        EXPECT_TRUE(woken.wantedPresets("auto", at(12, 0)).contains(p)) << p.toStdString();
}

TEST(LightPresets, CurrentPositionAndNames)
{
    const PlateManifest m = manifestWith({{"clock", clock({{"06:00", "noite"}, {"18:00", "manha"}})}});
    // 12:00: noite 0.5 / manha 0.5 → the dial wraps to 0.
    EXPECT_DOUBLE_EQ(*LightPresets::position(m, at(12, 0)), 0.0);
    EXPECT_DOUBLE_EQ(*LightPresets::position(m, at(18, 0)), 0.125);
    const PlateManifest day = manifestWith({{"clock", clock({{"10:00", "dia"}})}});
    EXPECT_DOUBLE_EQ(*LightPresets::position(day, at(1, 0)), 0.375);
    EXPECT_FALSE(LightPresets::position(std::nullopt, at(1, 0)).has_value());

    EXPECT_EQ(LightPresets::current(std::nullopt, "auto", at(1, 0)), "tarde");
    EXPECT_EQ(LightPresets::current(m, "noite", at(1, 0)), "noite");
    const PlateManifest tie = manifestWith({{"clock", clock({{"06:00", "dia"}, {"18:00", "tarde"}})}});
    EXPECT_EQ(LightPresets::current(tie, "auto", at(12, 0)), "dia");  // first met in map order
    EXPECT_EQ(LightPresets::current(tie, "sunset", at(5, 59)), "dia");

    EXPECT_EQ(LightPresets::name("golden hour"), "Golden Hour");
}
