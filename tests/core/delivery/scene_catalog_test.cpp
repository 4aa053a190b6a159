#include "core/delivery/SceneCatalog.h"
#include "core/delivery/Updates.h"

#include <QJsonDocument>
#include <gtest/gtest.h>
#include <functional>

// A failed comparison shows the entries as the catalog writes them.
static void PrintTo(const SceneCatalog::Entry &e, std::ostream *os)
{
    *os << QJsonDocument(e.toJson()).toJson(QJsonDocument::Compact).toStdString();
}

namespace {

using Entry = SceneCatalog::Entry;

Entry entry(const QString &id, const QString &file = QStringLiteral("room.zip"))
{
    return {id, "Room " + id, file, 1000, QString(64, QLatin1Char('a')), {}, {}, {}, {}, {}};
}

SceneCatalog catalogOf(const QList<Entry> &entries) { return SceneCatalog{1, entries}; }

bool usable(const Entry &e) { return !catalogOf({e}).usable(QStringLiteral("1.9.3")).isEmpty(); }

TEST(SceneCatalog, ParsesEveryKeyRoundTripsAndRefusesOtherVersionsAndBrokenDocuments)
{
    const QByteArray json = R"({"version":1,"scenes":[
        {"id":"a","title":"Apartment","file":"apt-1.zip","size":123456789012,"sha256":"00ff","min_app_version":"1.2",
         "scene":"apt","framing":"close","base":false,"unpacked_size":5},
        {"id":"b","title":"B","file":"b.zip","size":1,"sha256":"x","extra":"ignored"}]})";
    const SceneCatalog c = SceneCatalog::parse(json);
    ASSERT_EQ(c.scenes.size(), 2);
    EXPECT_EQ(c.scenes[0],
              (Entry{"a", "Apartment", "apt-1.zip", 123456789012LL, "00ff", "1.2", "apt", "close", false, 5}));
    EXPECT_EQ(c.scenes[1], (Entry{"b", "B", "b.zip", 1, "x", {}, {}, {}, {}, {}}));
    EXPECT_EQ(SceneCatalog::parse(c.serialize()), c);

    // Another version, malformed JSON, a missing or mistyped required key.
    for (const char *doc : {R"({"version":2,"scenes":[]})", "{not json", R"({"scenes":[]})", R"({"version":1})",
                            R"({"version":1,"scenes":[{"id":"a","title":"t","file":"f","sha256":"x"}]})",
                            R"({"version":1,"scenes":[{"id":"a","title":"t","file":"f","size":"9","sha256":"x"}]})",
                            R"({"version":1,"scenes":[{"id":"a","title":"t","file":"f","size":1.5,"sha256":"x"}]})"})
        EXPECT_THROW(SceneCatalog::parse(doc), DeliveryError) << doc;
}

TEST(SceneCatalog, LeavesOutUnsafeNamesSizesDigestsAndNewerVersions)
{
    EXPECT_TRUE(usable(entry("ok", "room-1_2.v3.zip")));
    EXPECT_TRUE(usable(entry("x", QString(128, QLatin1Char('a')))));
    // A trailing newline would reach the request path and a folder name.
    for (const QString &bad : {QStringLiteral("a/b.zip"), QStringLiteral("../b.zip"), QStringLiteral(".hidden.zip"),
                               QStringLiteral(""), QStringLiteral("a b.zip"), QString(129, QLatin1Char('a')),
                               QStringLiteral("room.zip\n"), QStringLiteral("\nroom.zip")})
        EXPECT_FALSE(usable(entry("x", bad))) << bad.toStdString();

    const auto usableWith = [](const std::function<void(Entry &)> &change) {
        Entry e = entry("x");
        change(e);
        return usable(e);
    };
    EXPECT_FALSE(usableWith([](Entry &e) { e.size = 0; }));
    EXPECT_FALSE(usableWith([](Entry &e) { e.sha256 = QString(63, QLatin1Char('a')); }));
    EXPECT_FALSE(usableWith([](Entry &e) { e.sha256 = QString(63, QLatin1Char('a')) + QLatin1Char('g'); }));
    EXPECT_TRUE(usableWith([](Entry &e) { e.sha256 = QString(32, QLatin1Char('A')) + QString(32, QLatin1Char('9')); }));
    for (const QString &bad : {QStringLiteral("../close"), QStringLiteral("close\n"), QStringLiteral("a/b")})
        EXPECT_FALSE(usableWith([&](Entry &e) { e.framing = bad; })) << bad.toStdString();
    EXPECT_TRUE(usableWith([](Entry &e) { e.framing = QStringLiteral("close"); }));
    // Up to and including the running version.
    EXPECT_FALSE(usableWith([](Entry &e) { e.minAppVersion = QStringLiteral("2.0"); }));
    EXPECT_TRUE(usableWith([](Entry &e) { e.minAppVersion = QStringLiteral("1.9.3"); }));

    // A package this version cannot use tells of a newer application: the highest such version.
    SceneCatalog c = catalogOf({entry("none")});
    for (const char *v : {"1.10", "0.5", "1.9.3"}) {
        c.scenes.append(entry(v));
        c.scenes.back().minAppVersion = QString::fromLatin1(v);
    }
    EXPECT_EQ(Updates::newerVersion(c, "1.9.3"), QStringLiteral("1.10"));
    EXPECT_EQ(Updates::newerVersion(c, "1.10.0"), std::nullopt);
}

TEST(SceneCatalog, PicksFirstUsableBaseAndGroupsFramingsOfItsScene)
{
    const auto make = [](const QString &id, std::optional<QString> scene, std::optional<QString> framing,
                         std::optional<bool> base = std::nullopt) {
        Entry e = entry(id, id + ".zip");
        e.scene = scene;
        e.framing = framing;
        e.base = base;
        return e;
    };
    Entry tooNew = make("new", "apt", std::nullopt);
    tooNew.minAppVersion = QStringLiteral("9");
    const Entry addOn = make("close1", "apt", "close");  // base absent, framing set: an add-on
    const Entry base = make("apt", "apt", std::nullopt);
    const Entry forcedBase = make("forced", std::nullopt, "top", true);
    const Entry close2 = make("close2", "apt", "close", false);
    const Entry otherScene = make("other", "loft", "top");
    const Entry noScene = make("noscene", std::nullopt, "mid");

    const SceneCatalog c = catalogOf({tooNew, addOn, base, forcedBase, close2, otherScene, noScene});
    EXPECT_EQ(c.pick("1.0")->id, QStringLiteral("apt"));
    EXPECT_TRUE(forcedBase.isBase());
    const auto framings = c.framings(base, "1.0");
    ASSERT_EQ(framings.keys(), QStringList{QStringLiteral("close")});
    EXPECT_EQ(framings["close"], (QList<Entry>{addOn, close2}));
    // Both scenes absent count as the same scene.
    EXPECT_EQ(c.framings(forcedBase, "1.0").keys(), QStringList{QStringLiteral("mid")});
    EXPECT_FALSE(catalogOf({addOn, close2}).pick("1.0").has_value());
}

}  // namespace
