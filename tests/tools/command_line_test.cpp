// Every program answers --help and --version from its arguments alone, with no display and no
// bus, before it touches anything else.

#include "TestSupport.h"
#include "core/app/AppIdentity.h"

#include <QDir>
#include <QDirIterator>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace testsupport;

namespace {

struct Outcome {
    int exitCode = -1;
    QString out;
    QString err;
};

// Files under `dir`, relative to it.
QStringList filesUnder(const QString &dir)
{
    QStringList files;
    QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) files << QDir(dir).relativeFilePath(it.next());
    return files;
}

}  // namespace

TEST(CommandLine, EveryProgramAnswersHelpAndVersionWithoutADisplayOrABus)
{
    QTemporaryDir home, work;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "QT_QPA_PLATFORM"})
        environment.remove(QString::fromLatin1(name));
    environment.insert("HOME", home.path());
    for (const char *name : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CACHE_HOME"})
        environment.insert(QString::fromLatin1(name), home.filePath(QString::fromLatin1(name)));
    // A room to draw: "turnelo" without a display renders it into its working folder instead.
    environment.insert("TURNELO_SCENES_DIR", QStringLiteral(TURNELO_SOURCE_DIR "/scenes/room"));
    const auto run = [&](const QString &program, const QStringList &arguments) {
        QProcess process;
        process.setProcessEnvironment(environment);
        process.setWorkingDirectory(work.path());
        process.start(program, arguments);
        Outcome result;
        if (process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit)
            result.exitCode = process.exitCode();
        else
            process.kill();
        result.out = QString::fromUtf8(process.readAllStandardOutput());
        result.err = QString::fromUtf8(process.readAllStandardError());
        return result;
    };

    struct Program {
        QString path;
        QStringList before;  // words ahead of the option ("render")
        QString name;        // as the usage line and the version show it
        QString usage;       // a form of its own usage, as the help shows it
    };
    const QString turnelo = QStringLiteral(TURNELO_BINARY_DIR "/turnelo");
    const Program programs[] = {
        {turnelo, {}, "turnelo", "--music-setup-done"},
        {turnelo, {"render"}, "turnelo render", "Usage: turnelo render [options] scene output"},
        {builtTool("turnelo-scene"),
         {},
         "turnelo-scene",
         "validate DIR | blend DIR --at HH:MM[:SS] | crop FILE --kind KIND"},
        {builtTool("turnelo-defaults"), {}, "turnelo-defaults", "read [KEY] | read-type KEY | write KEY TYPE VALUE"},
        {builtTool("turnelo-publish"), {}, "turnelo-publish", "--base <dir>"},
        {builtTool("turnelo-sync"), {}, "turnelo-sync", "--url <url>"},
        {builtTool("turnelo-gen-scene"), {}, "turnelo-gen-scene", "--out <DIR>"},
    };
    ASSERT_TRUE(QRegularExpression(R"(^\d+\.\d+\.\d+$)").match(AppIdentity::version()).hasMatch());
    for (const Program &p : programs) {
        SCOPED_TRACE(p.name.toStdString());
        const Outcome help = run(p.path, p.before + QStringList{"--help"});
        EXPECT_EQ(help.exitCode, 0) << qPrintable(help.err);
        EXPECT_TRUE(help.out.startsWith("Usage: " + p.name + " [options]")) << qPrintable(help.out);
        EXPECT_TRUE(help.out.contains(p.usage)) << qPrintable(help.out);
        EXPECT_TRUE(help.out.contains("--version")) << qPrintable(help.out);

        const Outcome version = run(p.path, p.before + QStringList{"--version"});
        EXPECT_EQ(version.exitCode, 0) << qPrintable(version.err);
        EXPECT_EQ(version.out, p.name + ' ' + AppIdentity::version() + '\n');
    }

    // A word it does not know is reported, not taken for a start without a display.
    const Outcome bad = run(turnelo, {"--no-such-option"});
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_TRUE(bad.err.contains("no-such-option")) << qPrintable(bad.err);
    EXPECT_TRUE(bad.out.isEmpty()) << qPrintable(bad.out);

    // Nothing drawn, nothing written.
    EXPECT_EQ(filesUnder(work.path()), QStringList());
    EXPECT_EQ(filesUnder(home.path()), QStringList());
}
