#include "core/app/Log.h"
#include "TestSupport.h"

#include <QDir>
#include <QRegularExpression>
#include <gtest/gtest.h>

namespace {

struct Environment : ::testing::Environment {
    QTemporaryDir home;
    void SetUp() override { qputenv("XDG_STATE_HOME", home.filePath("fresh/state").toUtf8()); }
};
Environment *env = static_cast<Environment *>(::testing::AddGlobalTestEnvironment(new Environment));

}  // namespace

TEST(Log, AppendsTimestampedLinesCreatingTheFolder)
{
    EXPECT_EQ(Log::path(), env->home.filePath("fresh/state") + "/Turnelo Dev.log");
    Log::write("Cena: carregando sala");
    Log::write("Capa “Álbum” ▶ ok");
    const QStringList lines = QString::fromUtf8(testsupport::readFile(Log::path())).split('\n');
    ASSERT_EQ(lines.size(), 3);  // two lines and the empty rest after the last line feed
    EXPECT_EQ(lines[2], "");
    const QRegularExpression stamp(R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (.*)$)");
    const auto first = stamp.match(lines[0]);
    ASSERT_TRUE(first.hasMatch()) << lines[0].toStdString();
    EXPECT_EQ(first.captured(1), "Cena: carregando sala");
    EXPECT_EQ(stamp.match(lines[1]).captured(1), "Capa “Álbum” ▶ ok");
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
