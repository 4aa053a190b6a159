#include "core/app/Log.h"
#include "TestSupport.h"

#include <QDir>
#include <gtest/gtest.h>

namespace {

struct Environment : ::testing::Environment {
    QTemporaryDir home;
    void SetUp() override { qputenv("XDG_STATE_HOME", home.filePath("fresh/state").toUtf8()); }
};
Environment *env = static_cast<Environment *>(::testing::AddGlobalTestEnvironment(new Environment));

}  // namespace

// Text from outside stays one line, escaped where it would forge a line, colour a terminal or
// reverse what follows it, and intact otherwise.
TEST(Log, AppendsOneEscapedLinePerMessageCreatingTheFolder)
{
    EXPECT_EQ(Log::path(), env->home.filePath("fresh/state") + "/Turnelo Dev.log");
    Log::write("Capa “Álbum” ▶ ok");
    Log::write(QString::fromUtf8("Faixa: A\nB\r\x1b[31m\u202Eevil\u2066 \u200F\x7f\u0085\u2028"));
    const QStringList lines = QString::fromUtf8(testsupport::readFile(Log::path())).split('\n');
    ASSERT_EQ(lines.size(), 3) << lines.join('\n').toStdString();
    EXPECT_TRUE(lines[0].endsWith(" Capa “Álbum” ▶ ok"));
    EXPECT_EQ(lines[1].section(' ', 1),
              "Faixa: A\\u{a}B\\u{d}\\u{1b}[31m\\u{202e}evil\\u{2066} \\u{200f}\\u{7f}\\u{85}\\u{2028}");
}

TEST(Log, UnwritableLogIsIgnoredSilently)
{
    // A folder where the file should be: nothing can be written, nothing is thrown.
    QFile::remove(Log::path());
    ASSERT_TRUE(QDir().mkpath(Log::path()));
    Log::write("perdida");
    EXPECT_TRUE(QFileInfo(Log::path()).isDir());
    QDir(Log::path()).removeRecursively();
    Log::write("de volta");
    EXPECT_TRUE(testsupport::readFile(Log::path()).endsWith(" de volta\n"));
}

TEST(Log, ALongMessageIsCutAndAFloodRotates)
{
    QFile::remove(Log::path());
    // A megabyte in one message is one line, cut.
    Log::write("Faixa: " + QString(1 << 20, 'x'));
    const QStringList lines = QString::fromUtf8(testsupport::readFile(Log::path())).split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 1);
    EXPECT_LT(lines[0].size(), Log::maxLineLength + 40);
    EXPECT_TRUE(lines[0].endsWith("x…"));

    // Two and a half megabytes of numbered lines: the older part goes to ".1", replacing the one
    // before, and no line is lost where the file turned.
    const QString older = Log::path() + ".1";
    const QString filler(1000, '-');
    for (int i = 0; i < 2600; ++i) Log::write(QStringLiteral("linha %1 ").arg(i) + filler);
    const auto numbers = [](const QString &file) {
        QList<int> out;
        for (const QString &line : QString::fromUtf8(testsupport::readFile(file)).split('\n', Qt::SkipEmptyParts))
            out << line.section(' ', 2, 2).toInt();
        return out;
    };
    const QList<int> current = numbers(Log::path()), previous = numbers(older);
    EXPECT_LE(QFileInfo(Log::path()).size(), Log::maxBytes);
    EXPECT_LE(QFileInfo(older).size(), Log::maxBytes);
    ASSERT_TRUE(!current.isEmpty() && !previous.isEmpty());
    EXPECT_EQ(current.last(), 2599);
    EXPECT_EQ(previous.last() + 1, current.first());
    EXPECT_GT(previous.first(), 0) << "the first rotated part was replaced";
    EXPECT_EQ(QFileInfo(Log::path()).dir().entryList(QDir::Files).size(), 2);
}
