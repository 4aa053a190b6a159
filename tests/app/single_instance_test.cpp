// Starts of the room reduced to their single-instance check (instance_probe), as real processes:
// pairs at the same moment, leftovers of a crash, and sockets and folders others made first.

#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocalServer>
#include <QProcess>
#include <gtest/gtest.h>
#include <memory>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

// One instance_probe, and the lines it printed after "ready".
struct Probe {
    QProcess process;
    QByteArray out;

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
    QStringList lines(bool withReady = false)
    {
        QStringList all =
            QString::fromLocal8Bit(out += process.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
        if (!withReady) all.removeAll("ready");
        return all;
    }
    bool ready()
    {
        return waitUntil([&] { return lines(true).contains("ready"); }, 10s);
    }
    void go() { process.write("go\n"); }
    QString verdict()  // the first line after "ready", once there is one
    {
        waitUntil([&] { return !lines().isEmpty() || process.state() == QProcess::NotRunning; }, 10s);
        return lines().value(0);
    }
    bool shownOnce()
    {
        return waitUntil([&] { return lines().count("shown") == 1; }, 5s);
    }
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
};

}  // namespace

TEST_F(SingleInstanceTest, OfPairsStartedTogetherExactlyOneWinsWhateverOthersMadeFirst)
{
    // Someone listening first at the name the room once used in /tmp, answering every knock.
    QLocalServer squatter;
    ASSERT_TRUE(squatter.listen(temp.filePath(QStringLiteral("turnelo-dev-%1--7").arg(getuid()))));
    // Without XDG_RUNTIME_DIR, someone made /tmp/runtime-<user> first, a link to a folder all may
    // write: the room keeps to a private folder in the cache.
    QTemporaryDir others;
    ASSERT_TRUE(
        QFile::link(others.path(), temp.filePath("runtime-" + QString::fromLocal8Bit(getpwuid(geteuid())->pw_name))));
    ASSERT_EQ(::chmod(others.path().toLocal8Bit(), 01777), 0);
    const QString cache = state.filePath("cache");

    struct Case {
        QStringList env;
        QString folder;  // where the winner's socket goes
        int rounds;
    };
    for (const Case &c :
         {Case{{}, runtime.path() + '/', 20}, Case{{"XDG_RUNTIME_DIR=", "XDG_CACHE_HOME=" + cache}, cache + '/', 3}}) {
        for (int round = 0; round < c.rounds && !HasFailure(); ++round) {
            SCOPED_TRACE(c.folder.toStdString() + ", round " + std::to_string(round));
            Probe a({"start"}, env + c.env), b({"start"}, env + c.env);
            ASSERT_TRUE(a.ready() && b.ready());
            a.go();  // both loaded before either goes: a start at the same moment
            b.go();
            QStringList verdicts{a.verdict(), b.verdict()};
            Probe &winner = verdicts[0].startsWith("won ") ? a : b;
            verdicts.sort();
            EXPECT_EQ(verdicts.value(0), "running");
            EXPECT_TRUE(verdicts.value(1).startsWith("won " + c.folder)) << verdicts.join(", ").toStdString();
            EXPECT_TRUE(winner.shownOnce()) << "the loser's knock did not reach the winner";
        }
    }
    EXPECT_TRUE(QDir(others.path()).isEmpty());
}

TEST_F(SingleInstanceTest, LeftoversAndWhatStrangersMadeDoNotStopTheRoom)
{
    // A room killed outright leaves its socket; the next start takes the name over.
    auto crashed = start();
    ASSERT_TRUE(crashed->verdict().startsWith("won "));
    crashed->process.kill();
    crashed->process.waitForFinished();
    auto room = start();
    ASSERT_TRUE(room->verdict().startsWith("won "));
    const QString socket = room->verdict().section(' ', 1);

    // Another user's process, as root can play one: its knock is not believed, and its socket
    // where ours would be is not taken for a running room.
    if (geteuid() != 0) GTEST_SKIP() << "only root can run a probe as another user";
    const QString stranger = QString::number(65534);
    // Opened to everyone after the start, as only a mistake or an attack would.
    ASSERT_EQ(::chmod(runtime.path().toLocal8Bit(), 0711), 0);
    ASSERT_EQ(::chmod(socket.toLocal8Bit(), 0777), 0);
    EXPECT_EQ(start({"--as", stranger, "knock", socket})->verdict(), "knocked");
    EXPECT_EQ(start({"knock", socket})->verdict(), "knocked");
    EXPECT_TRUE(room->shownOnce());
    EXPECT_EQ(room->lines().count("shown"), 1) << "only our own knock shows the room";

    QTemporaryDir open, ours;
    ASSERT_EQ(::chmod(open.path().toLocal8Bit(), 0777), 0);
    auto theirs = start({"--as", stranger, "listen", open.filePath("s")});
    ASSERT_EQ(theirs->verdict(), "listening");
    // Only root could put it where our room's socket goes; there, it must not pass for our room.
    ASSERT_TRUE(QFile::rename(open.filePath("s"), ours.filePath(QFileInfo(socket).fileName())));
    EXPECT_TRUE(start({"start"}, {"XDG_RUNTIME_DIR=" + ours.path()})->verdict().startsWith("won "));
    EXPECT_TRUE(waitUntil([&] { return theirs->lines().size() > 1; }, 5s));
    EXPECT_EQ(theirs->lines().value(1), "silent") << "the stranger's socket was told nothing";
}
