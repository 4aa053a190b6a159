#include "core/music/AlbumHash.h"
#include "core/music/HistoryStore.h"
#include "core/scene/SceneLocation.h"
#include "core/app/SafeText.h"
#include "core/app/Settings.h"
#include "core/app/StateFile.h"
#include "TestSupport.h"

#include <QDir>
#include <QFileInfo>
#include <QImageReader>
#include <QJsonArray>
#include <QJsonDocument>
#include <QPainter>
#include <QSignalSpy>
#include <gtest/gtest.h>

using namespace testsupport;

namespace {

QImage cover(QColor color) { return solidImage(color, 64, 64); }

struct HistoryStoreTest : ::testing::Test {
    QTemporaryDir temp;
    Settings settings{temp.filePath("settings.json")};
    QString dir() const { return temp.filePath("support/history"); }
    QString fileOf(const QString &album) const { return dir() + "/" + albumCoverFileName(album); }

    QStringList albums(const HistoryStore &store) const
    {
        QStringList out;
        for (const auto &e : store.entries()) out << e.album;
        return out;
    }
};

}  // namespace

TEST_F(HistoryStoreTest, AnAlbumPlayedAgainMovesToTheTopOnceAndClearingDeletesEveryCover)
{
    {
        // By default history sits in the support directory, whatever it is (computed once per process).
        ScopedEnv data("XDG_DATA_HOME", temp.path().toUtf8());
        EXPECT_EQ(HistoryStore(settings).dir(), SceneLocation::supportDirectory() + "/history");
    }
    HistoryStore store(settings, dir());
    EXPECT_TRUE(QFileInfo(dir()).isDir()) << "the folder is made on first use";
    EXPECT_TRUE(store.previous("A").isNull());
    store.record(cover(Qt::red), "A");
    EXPECT_TRUE(store.previous("A").isNull());
    store.record(cover(Qt::blue), "B");
    store.record(cover(Qt::red), "A");
    EXPECT_EQ(albums(store), QStringList({"A", "B"}));

    store.flush();  // the covers and the index are written off the caller's thread
    EXPECT_GT(store.previous("A").pixelColor(32, 32).blue(), 230) << "B's cover";
    EXPECT_GT(store.previous("B").pixelColor(32, 32).red(), 230);

    // What was recorded is what the next launch finds.
    EXPECT_EQ(HistoryStore(settings, dir()).entries(), store.entries());

    // Nothing to show without another readable album; an empty album name is ignored.
    QFile::remove(fileOf("A"));
    EXPECT_TRUE(store.previous("B").isNull()) << "the entry's file is gone";
    store.record(cover(Qt::green), "");
    EXPECT_EQ(albums(store), QStringList({"A", "B"}));

    // A cover that cannot be written leaves no entry behind, in the list or on disk.
    ASSERT_TRUE(QDir(dir()).mkdir(albumCoverFileName("C")));
    store.record(cover(Qt::red), "C");
    store.flush();
    EXPECT_EQ(albums(store), QStringList({"A", "B"}));
    EXPECT_EQ(albums(HistoryStore(settings, dir())), QStringList({"A", "B"}));

    // Clearing deletes every cover, one left by an earlier unreadable index too, and the index, and
    // announces itself; a file already gone (A's) is ignored.
    writeFile(dir() + "/0123456789abcdef.jpg", HistoryStore::encodeCover(cover(Qt::red)));
    QSignalSpy changed(&store, &HistoryStore::changed);
    store.clear();
    EXPECT_EQ(changed.count(), 1);
    EXPECT_TRUE(store.entries().isEmpty());
    EXPECT_TRUE(QDir(dir()).entryList(QDir::Files).isEmpty()) << "the covers and the index";
}

TEST_F(HistoryStoreTest, TheLimitDeletesTheOldestCovers)
{
    settings.setStackLimit(2);
    HistoryStore store(settings, dir());
    for (const char *album : {"One", "Two", "Three", "Four"}) store.record(cover(Qt::gray), album);
    EXPECT_EQ(albums(store), QStringList({"Four", "Three"}));
    store.flush();
    for (const char *album : {"One", "Two", "Three", "Four"})
        EXPECT_EQ(QFile::exists(fileOf(album)), albums(store).contains(album)) << album;

    // A lower limit cuts the stack as soon as it is set, and says so; 0 or less keeps one.
    QSignalSpy changed(&store, &HistoryStore::changed);
    settings.setStackLimit(0);
    EXPECT_EQ(albums(store), QStringList({"Four"}));
    store.flush();
    EXPECT_FALSE(QFile::exists(fileOf("Three")));
    EXPECT_EQ(changed.count(), 1);
    store.record(cover(Qt::gray), "Five");
    EXPECT_EQ(albums(store), QStringList({"Five"}));
    store.flush();
    EXPECT_EQ(HistoryStore(settings, dir()).entries().size(), 1);
}

TEST_F(HistoryStoreTest, CoversAreSquareJpegsOfAtMost512Pixels)
{
    HistoryStore store(settings, dir());
    // Left half red, right half blue: the square keeps both halves (scaled to fill, not cropped).
    QImage wide = solidImage(Qt::red, 3000, 1500);
    QPainter(&wide).fillRect(1500, 0, 1500, 1500, Qt::blue);
    store.record(wide, "Wide");
    store.record(solidImage(Qt::green, 300, 300), "Small");
    store.flush();

    QImageReader wideReader(fileOf("Wide"));
    EXPECT_EQ(wideReader.format(), "jpeg");
    const QImage stored = wideReader.read();
    EXPECT_EQ(stored.size(), QSize(512, 512));
    EXPECT_GT(stored.pixelColor(100, 256).red(), 200);
    EXPECT_GT(stored.pixelColor(400, 256).blue(), 200);

    EXPECT_EQ(QImage(fileOf("Small")).size(), QSize(300, 300));
    EXPECT_EQ(QImage::fromData(HistoryStore::encodeCover(solidImage(Qt::white, 100, 900))).size(), QSize(512, 512));
    EXPECT_TRUE(HistoryStore::encodeCover(QImage()).isEmpty());
}

TEST_F(HistoryStoreTest, ACorruptIndexIsAnEmptyStackRewrittenOnTheNextRecord)
{
    writeFile(dir() + "/index.json", "[{\"album\": \"A\", \"fi");
    HistoryStore store(settings, dir());
    store.record(cover(Qt::red), "B");
    store.flush();
    EXPECT_EQ(albums(HistoryStore(settings, dir())), QStringList{"B"});

    // Well-formed JSON of the wrong shape is no better, nor is a name that leads out of the folder.
    for (const char *index : {R"([{"album": 3, "file": "x.jpg"}])", R"({"album": "A"})",
                              R"([{"album": "A", "file": "../../cover.jpg"}])"}) {
        writeFile(dir() + "/index.json", index);
        EXPECT_TRUE(HistoryStore(settings, dir()).entries().isEmpty()) << index;
    }
}

TEST_F(HistoryStoreTest, APlayersHostileAlbumNameIsStoredOnOneLineAndCut)
{
    HistoryStore store(settings, dir());
    const QString huge = QString::fromUtf8("Live\n\x1b[2J\u202E") + QString(1 << 20, 'x');
    store.record(cover(Qt::red), huge);
    store.record(cover(Qt::blue), "B\r\n");
    store.record(cover(Qt::red), huge);
    ASSERT_EQ(store.entries().size(), 2) << "the same album, once";
    EXPECT_EQ(store.entries().last().album, "B");
    const QString kept = store.entries().first().album;
    EXPECT_EQ(kept.size(), SafeText::fieldLength);
    EXPECT_FALSE(kept.contains('\n') || kept.contains(QChar(0x1b)) || kept.contains(QChar(0x202E)))
        << kept.left(20).toStdString();
    store.flush();
    EXPECT_GT(store.previous(huge).pixelColor(32, 32).blue(), 230) << "the huge album is the one left out";
    EXPECT_EQ(HistoryStore(settings, dir()).entries(), store.entries());

    // An index written before names were cut is cut as it loads.
    writeFile(dir() + "/index.json",
              QJsonDocument(QJsonArray{QJsonObject{{"album", huge}, {"file", "a.jpg"}}}).toJson());
    EXPECT_EQ(HistoryStore(settings, dir()).entries().first().album, kept);
}

TEST_F(HistoryStoreTest, ALongDamagedIndexGivesItsCompleteEntriesInAFewParses)
{
    // 150 KB of entries whose names hold commas, brackets and quotes; a torn write ran two together.
    QJsonArray entries;
    for (int i = 0; entries.size() < 2200; ++i)
        entries.append(QJsonObject{{"album", QStringLiteral("Live, [disc %1] {\"best\"}").arg(i)},
                                   {"file", albumCoverFileName(QString::number(i))}});
    QByteArray damaged = QJsonDocument(entries).toJson(QJsonDocument::Compact);
    const qsizetype tear = damaged.indexOf("[disc 1100]");
    damaged.remove(tear, damaged.indexOf("file", damaged.indexOf("[disc 1101]")) - tear);
    ASSERT_GT(damaged.size(), 150'000);
    writeFile(dir() + "/index.json", damaged);
    const HistoryStore store(settings, dir());
    ASSERT_EQ(store.entries().size(), 1100);
    EXPECT_EQ(store.entries().last().album, "Live, [disc 1099] {\"best\"}");
    EXPECT_EQ(readFile(dir() + "/index.json.bad"), damaged) << "kept aside as it was";

    // Each closed prefix that is tried is parsed whole: one per entry took 8 s here.
    int parses = 0;
    EXPECT_EQ(StateFile::salvage(damaged, &parses)->array().size(), 1100);
    EXPECT_LE(parses, 12);
}
