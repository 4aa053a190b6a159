// Starts of the room reduced to their single-instance check (instance_probe), as real processes:
// pairs started at the same moment, leftovers of a crashed run, and sockets and folders someone
// else made first.

#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocalServer>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <memory>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

constexpr uid_t stranger = 65534;

// One instance_probe; its output lines as they come.
struct Probe {
    QProcess process;

    Probe(const QStringList &args, const QStringList &env)
    {
        process.setEnvironment(QProcess::systemEnvironment() + env);
        process.start(QStringLiteral(INSTANCE_PROBE), args);
    }
    ~Probe()
    {
        process.closeWriteChannel();
        if (!process.waitForFinished(5000)) process.kill();
        process.waitForFinished();
    }
    QStringList all()
    {
        out += process.readAllStandardOutput();
        return QString::fromLocal8Bit(out).split('\n', Qt::SkipEmptyParts);
    }
    QStringList lines()
    {
        QStringList after = all();
        after.removeAll("ready");
        return after;
    }
    bool ready()
    {
        return waitUntil([&] { return all().contains("ready"); }, 10s);
    }
    void go() { process.write("go\n"); }
    // The first line after "ready", once there is one.
    QString verdict()
    {
        waitUntil([&] { return !lines().isEmpty() || process.state() == QProcess::NotRunning; }, 10s);
        return lines().value(0);
    }
    qsizetype count(const QString &line) { return lines().count(line); }

private:
    QByteArray out;
};

struct SingleInstanceTest : ::testing::Test {
    QTemporaryDir runtime, temp, state;
    QStringList env{"XDG_RUNTIME_DIR=" + runtime.path(), "TMPDIR=" + temp.path(), "XDG_STATE_HOME=" + state.path(),
                    "DISPLAY=:7"};

    std::unique_ptr<Probe> start(const QStringList &args = {"start"}, const QStringList &extra = {})
    {
        auto probe = std::make_unique<Probe>(args, env + extra);
        probe->go();
        return probe;
    }
    // Two starts, let go at the same moment once both are loaded.
    std::pair<std::unique_ptr<Probe>, std::unique_ptr<Probe>> pair(const QStringList &extra = {})
    {
        auto a = std::make_unique<Probe>(QStringList{"start"}, env + extra);
        auto b = std::make_unique<Probe>(QStringList{"start"}, env + extra);
        if (a->ready() && b->ready()) {
            a->go();
            b->go();
        }
        return {std::move(a), std::move(b)};
    }
};

}  // namespace

TEST_F(SingleInstanceTest, OfTwentyPairsStartedTogetherExactlyOneWinsEvenWithASquatterInTmp)
{
    // Someone listening first at the name the room once used in /tmp, answering every knock.
    QLocalServer squatter;
    ASSERT_TRUE(squatter.listen(temp.filePath(QStringLiteral("turnelo-dev-%1--7").arg(getuid()))));

    for (int round = 0; round < 20; ++round) {
        auto [a, b] = pair();
        const QStringList verdicts{a->verdict(), b->verdict()};
        Probe &winner = verdicts[0].startsWith("won ") ? *a : *b;
        EXPECT_EQ(verdicts.filter(QRegularExpression("^won ")).size(), 1)
            << "round " << round << ": " << verdicts.join(", ").toStdString();
        EXPECT_EQ(verdicts.count("running"), 1) << "round " << round;
        // The loser's knock reached the winner and was believed.
        EXPECT_TRUE(waitUntil([&] { return winner.count("shown") == 1; }, 5s)) << "round " << round;
        if (HasFailure()) break;
    }
}

TEST_F(SingleInstanceTest, LeftoversAndWhatStrangersMadeFirstDoNotStopTheRoom)
{
    // A room killed outright leaves its socket; the next start takes the name over.
    {
        auto crashed = start();
        ASSERT_TRUE(crashed->verdict().startsWith("won "));
        crashed->process.kill();
        crashed->process.waitForFinished();
        EXPECT_TRUE(start()->verdict().startsWith("won "));
    }

    // Without XDG_RUNTIME_DIR, someone else made /tmp/runtime-<user> first (a link to a folder all
    // may write): the room keeps to a private folder of its own in the cache, and still one wins.
    {
        QTemporaryDir others;
        ASSERT_TRUE(
            QFile::link(others.path(), temp.filePath(QStringLiteral("runtime-") + getpwuid(geteuid())->pw_name)));
        ASSERT_EQ(::chmod(others.path().toLocal8Bit(), 01777), 0);
        const QStringList noRuntime{"XDG_RUNTIME_DIR=", "XDG_CACHE_HOME=" + state.filePath("cache")};
        auto [a, b] = pair(noRuntime);
        QStringList verdicts{a->verdict(), b->verdict()};
        verdicts.sort();
        EXPECT_EQ(verdicts.value(0), "running");
        EXPECT_TRUE(verdicts.value(1).startsWith("won " + state.filePath("cache/"))) << verdicts.value(1).toStdString();
        EXPECT_TRUE(QDir(others.path()).isEmpty());
    }

    // Another user's process, as far as root can play one: its knock is not believed, and its
    // socket where ours would be is not taken for a running room.
    if (geteuid() != 0) GTEST_SKIP() << "only root can run a probe as another user";
    auto room = start();
    const QString socket = room->verdict().section(' ', 1);
    ASSERT_FALSE(socket.isEmpty());
    // Opened to everyone after the start, as only a mistake or an attack would leave it.
    ASSERT_EQ(::chmod(runtime.path().toLocal8Bit(), 0711), 0);
    ASSERT_EQ(::chmod(socket.toLocal8Bit(), 0777), 0);
    const QString as = QString::number(stranger);
    EXPECT_EQ(start({"--as", as, "knock", socket})->verdict(), "knocked");
    EXPECT_EQ(start({"knock", socket})->verdict(), "knocked");
    EXPECT_TRUE(waitUntil([&] { return room->count("shown") == 1; }, 5s));
    EXPECT_EQ(room->count("shown"), 1) << "only our own knock shows the room";

    QTemporaryDir open, ours;
    ASSERT_EQ(::chmod(open.path().toLocal8Bit(), 0777), 0);
    auto theirs = start({"--as", as, "listen", open.filePath("s")});
    ASSERT_EQ(theirs->verdict(), "listening");
    // Only root could put it where our room's socket goes; there, it must not pass for our room.
    ASSERT_TRUE(QFile::rename(open.filePath("s"), ours.filePath(QFileInfo(socket).fileName())));
    auto next = start({"start"}, {"XDG_RUNTIME_DIR=" + ours.path()});
    EXPECT_TRUE(next->verdict().startsWith("won "));
    EXPECT_TRUE(waitUntil([&] { return theirs->lines().size() > 1; }, 5s));
    EXPECT_EQ(theirs->lines().value(1), "silent") << "the stranger's socket was told nothing";
}
