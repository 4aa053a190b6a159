// Every program answers --help and --version from its arguments alone, with no display and no
// bus, before it touches anything else.

#include "PrivateHome.h"
#include "TestSupport.h"
#include "core/app/AppIdentity.h"

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace testsupport;

TEST(CommandLine, EveryProgramAnswersHelpAndVersionWithoutADisplayOrABus)
{
    PrivateHome home;
    QTemporaryDir work;
    // A room to draw: "turnelo" without a display renders it into its working folder instead.
    const QProcessEnvironment environment =
        home.clientEnvironment({{"TURNELO_SCENES_DIR", QStringLiteral(TURNELO_SOURCE_DIR "/scenes/room")}});
    // Exit status (-1 for none), standard output and standard error.
    const auto run = [&](const QString &program, const QStringList &arguments) {
        QProcess process;
        process.setProcessEnvironment(environment);
        process.setWorkingDirectory(work.path());
        process.start(program, arguments);
        const bool exited = process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit;
        if (!exited) process.kill();
        return std::tuple(exited ? process.exitCode() : -1, QString::fromUtf8(process.readAllStandardOutput()),
                          QString::fromUtf8(process.readAllStandardError()));
    };

    struct Program {
        QString path;
        QStringList before;  // words ahead of the option ("render")
        QString name;        // as the usage line and the version show it
    };
    const QString turnelo = QStringLiteral(TURNELO_BINARY_DIR "/turnelo");
    const Program programs[] = {
        {turnelo, {}, "turnelo"},
        {turnelo, {"render"}, "turnelo render"},
        {builtTool("turnelo-scene"), {}, "turnelo-scene"},
        {builtTool("turnelo-defaults"), {}, "turnelo-defaults"},
        {builtTool("turnelo-publish"), {}, "turnelo-publish"},
        {builtTool("turnelo-sync"), {}, "turnelo-sync"},
        {builtTool("turnelo-gen-scene"), {}, "turnelo-gen-scene"},
    };
    ASSERT_TRUE(QRegularExpression(R"(^\d+\.\d+\.\d+$)").match(AppIdentity::version()).hasMatch());
    for (const Program &p : programs) {
        SCOPED_TRACE(p.name.toStdString());
        const auto [helpStatus, help, helpErr] = run(p.path, p.before + QStringList{"--help"});
        EXPECT_EQ(helpStatus, 0) << qPrintable(helpErr);
        EXPECT_TRUE(help.startsWith("Usage: " + p.name + " [options]")) << qPrintable(help);
        EXPECT_TRUE(help.contains("--version")) << qPrintable(help);
        const auto [versionStatus, version, versionErr] = run(p.path, p.before + QStringList{"--version"});
        EXPECT_EQ(versionStatus, 0) << qPrintable(versionErr);
        EXPECT_EQ(version, p.name + ' ' + AppIdentity::version() + '\n');
    }

    // A word it does not know is reported, not taken for a start without a display.
    const auto [badStatus, badOut, badErr] = run(turnelo, {"--no-such-option"});
    EXPECT_EQ(badStatus, 1);
    EXPECT_TRUE(badErr.contains("no-such-option")) << qPrintable(badErr);
    EXPECT_TRUE(badOut.isEmpty()) << qPrintable(badOut);

    // A size or time it cannot use is named, with the form it wants.
    for (const auto &[option, value] :
         {std::pair{"--size", "640x0"}, {"--size", "0x480"}, {"--size", "640"}, {"--time", "25:00"}}) {
        const auto [status, out, err] = run(turnelo, {"render", "scene", "out.png", option, value});
        EXPECT_EQ(status, 2);
        EXPECT_TRUE(err.contains(QString(option) + " wants") && err.contains(value)) << qPrintable(err);
    }

    // Nothing drawn, nothing written.
    EXPECT_TRUE(filesUnder(work.path()).empty());
    EXPECT_TRUE(filesUnder(QFileInfo(home.home()).path()).empty()) << "in the private HOME or XDG folders";
}
