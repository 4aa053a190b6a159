#include "core/environment/DesktopCleaner.h"
#include "core/app/Log.h"
#include "core/environment/ProcessLauncher.h"
#include "core/app/Settings.h"
#include "platform/linux/LinuxDesktopPreferences.h"
#include "platform/linux/XfconfDesktopPreferences.h"
#include "TestSupport.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <gtest/gtest.h>
#include <memory>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

const QString stylePath = QStringLiteral("/desktop-icons/style");

QString findXfconfd()
{
    QStringList candidates{QStringLiteral("/usr/lib/x86_64-linux-gnu/xfce4/xfconf/xfconfd"),
                           QStringLiteral("/usr/lib/aarch64-linux-gnu/xfce4/xfconf/xfconfd"),
                           QStringLiteral("/usr/lib/xfce4/xfconf/xfconfd"),
                           QStringLiteral("/usr/libexec/xfconfd")};
    for (const QString &c : candidates)
        if (QFileInfo(c).isExecutable())
            return c;
    return {};
}

// A private session bus on which xfconfd is started on demand, keeping its channels under a
// temporary XDG_CONFIG_HOME. dbus-monitor on the same bus records every call that writes to
// xfconfd, so a test can tell "wrote the same value" from "wrote nothing".
class PrivateXfconf {
public:
    QTemporaryDir dir;
    QProcess bus;
    QProcess monitor;
    QString address;

    bool start(QString &why)
    {
        const QString xfconfd = findXfconfd();
        if (xfconfd.isEmpty()) {
            why = "xfconfd not found (package xfconf)";
            return false;
        }
        writeFile(dir.filePath("services/org.xfce.Xfconf.service"),
                  "[D-BUS Service]\nName=org.xfce.Xfconf\nExec=" + xfconfd.toUtf8() + "\n");
        writeFile(dir.filePath("bus.conf"),
                  "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                  " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                  "<busconfig><type>session</type>\n"
                  "<listen>unix:dir=" + dir.path().toUtf8() + "</listen>\n"
                  "<servicedir>" + dir.filePath("services").toUtf8() + "</servicedir>\n"
                  "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                  "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n");
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_CONFIG_HOME", dir.filePath("config"));
        bus.setProcessEnvironment(env);
        bus.start("dbus-daemon", {"--nofork", "--print-address", "--config-file=" + dir.filePath("bus.conf")});
        if (!bus.waitForStarted() || !waitUntil([&] { return bus.canReadLine(); }, 10s)) {
            why = "dbus-daemon did not start: " + bus.errorString() + " " + bus.readAllStandardError();
            return false;
        }
        address = QString::fromUtf8(bus.readLine()).trimmed();

        monitor.start("dbus-monitor", {"--address", address, "type='method_call',interface='org.xfce.Xfconf'"});
        if (!monitor.waitForStarted()) {
            why = "dbus-monitor did not start";
            return false;
        }
        return true;
    }

    ~PrivateXfconf()
    {
        for (QProcess *p : {&monitor, &bus}) {
            p->terminate();
            if (!p->waitForFinished(5000))
                p->kill();
            p->waitForFinished();
        }
    }

    // Runs xfconf-query against the private bus, beside the code under test.
    ToolResult query(const QStringList &args)
    {
        return runTool("xfconf-query", QStringList{"-c", XfconfDesktopPreferences::channel} + args,
                       {"DBUS_SESSION_BUS_ADDRESS=" + address, "LC_ALL=C"});
    }
    std::optional<QString> style()
    {
        const auto r = query({"-p", stylePath});
        if (r.exitCode != 0)
            return std::nullopt;
        return QString::fromUtf8(r.out).trimmed();
    }
    void setStyle(int style) { query({"-p", stylePath, "-n", "-t", "int", "-s", QString::number(style)}); }

private:
    bool waitMarker(const QByteArray &marker)
    {
        return waitUntil([&] {
            seen += monitor.readAll();
            return seen.contains(marker);
        }, 10s);
    }
    int markers = 0;
    QByteArray seen;

public:
    // Calls that wrote to the icon style (Set or Reset) seen on the bus since the last check.
    int writesSinceLastCheck()
    {
        // A marker write, seen last, proves the monitor has caught up with everything before it.
        const QByteArray marker = "/turnelo-test/marker-" + QByteArray::number(++markers);
        query({"-p", QString::fromUtf8(marker), "-n", "-t", "int", "-s", "1"});
        EXPECT_TRUE(waitMarker(marker)) << "dbus-monitor did not see the marker";
        int writes = 0;
        bool inWrite = false;
        for (const QByteArray &line : seen.split('\n')) {
            if (line.startsWith("method call"))
                inWrite = line.contains("member=SetProperty") || line.contains("member=ResetProperty");
            else if (inWrite && line.contains(stylePath.toUtf8())) {
                ++writes;
                inWrite = false;
            }
        }
        seen.clear();
        return writes;
    }
};

// Records what the desktop process would be told to do instead of reloading a real xfdesktop.
struct RecordingLauncher : ProcessLauncher {
    QStringList commands;
    std::optional<QString> run(const QString &program, const QStringList &arguments) override
    {
        commands.append((QStringList{program} + arguments).join(' '));
        return std::nullopt;
    }
};

struct DesktopCleanerXfconfTest : ::testing::Test {
    static void SetUpTestSuite()
    {
        static QTemporaryDir state;
        qputenv("XDG_STATE_HOME", state.path().toUtf8());
    }

    PrivateXfconf xfconf;
    std::unique_ptr<testsupport::ScopedEnv> busEnv;
    QTemporaryDir dir;
    std::unique_ptr<Settings> settings;
    RecordingLauncher launcher;
    std::unique_ptr<DesktopCleaner> cleaner;
    qint64 logStart = 0;

    void SetUp() override
    {
        QString why;
        ASSERT_TRUE(xfconf.start(why)) << why.toStdString();
        busEnv = std::make_unique<ScopedEnv>("DBUS_SESSION_BUS_ADDRESS", xfconf.address.toUtf8());
        settings = std::make_unique<Settings>(dir.filePath("turnelo.json"));
        logStart = readFile(Log::path()).size();
    }

    void makeCleaner()
    {
        auto prefs = linuxDesktopPreferences("XFCE");
        ASSERT_NE(prefs, nullptr);
        cleaner = std::make_unique<DesktopCleaner>(*settings, std::move(prefs), launcher);
        cleaner->reload();
    }

    QString lastLogLine() const
    {
        const auto lines = QString::fromUtf8(readFile(Log::path()).mid(logStart)).split('\n', Qt::SkipEmptyParts);
        return lines.isEmpty() ? QString() : lines.last();
    }

    QVariantMap snapshotEntry() const
    {
        return settings->desktopSnapshot()
            .value_or(QVariantMap())
            .value(XfconfDesktopPreferences::channel)
            .toMap()
            .value(stylePath)
            .toMap();
    }

    static DesktopCleaner::Desired hide() { return {true, false, false}; }
    static DesktopCleaner::Desired show() { return {}; }
    const QString reload = QStringLiteral("xfdesktop --reload");
};

}  // namespace

TEST_F(DesktopCleanerXfconfTest, ApplyingWhatIsAlreadySetWritesAndRestartsNothing)
{
    // Never set: icons show by default, and showing them leaves the key unset.
    ASSERT_NO_FATAL_FAILURE(makeCleaner());
    EXPECT_FALSE(cleaner->current().hideIcons);
    cleaner->apply(show());
    EXPECT_EQ(xfconf.style(), std::nullopt);
    EXPECT_EQ(xfconf.writesSinceLastCheck(), 0);
    EXPECT_TRUE(launcher.commands.isEmpty());
    EXPECT_TRUE(lastLogLine().endsWith(
        "Mesa limpa: Desired(hideIcons: false, hideWidgets: false, clickOnlyInStageManager: false) (reiniciou [])"))
        << lastLogLine().toStdString();

    // Already hidden by the user.
    xfconf.setStyle(0);
    cleaner->reload();
    EXPECT_TRUE(cleaner->current().hideIcons);
    xfconf.writesSinceLastCheck();
    cleaner->apply(hide());
    EXPECT_EQ(xfconf.writesSinceLastCheck(), 0);
    EXPECT_TRUE(launcher.commands.isEmpty());
    EXPECT_TRUE(lastLogLine().endsWith("(reiniciou [])"));

    // Minimised-application icons are a way of showing icons: showing keeps the user's choice.
    xfconf.setStyle(1);
    xfconf.writesSinceLastCheck();
    cleaner->apply(show());
    EXPECT_EQ(xfconf.style(), "1");
    EXPECT_EQ(xfconf.writesSinceLastCheck(), 0);
    EXPECT_TRUE(launcher.commands.isEmpty());
}

TEST_F(DesktopCleanerXfconfTest, HideThenRestorePutsEveryKeyBackExactly)
{
    struct Case {
        const char *what;
        std::optional<int> before;
    };
    for (const Case &c : {Case{"never set", std::nullopt}, Case{"minimised icons", 1}, Case{"file icons", 2}}) {
        SCOPED_TRACE(c.what);
        launcher.commands.clear();
        xfconf.query({"-p", stylePath, "-r"});
        if (c.before)
            xfconf.setStyle(*c.before);
        ASSERT_NO_FATAL_FAILURE(makeCleaner());
        EXPECT_FALSE(cleaner->current().hideIcons);

        cleaner->apply(hide());
        EXPECT_EQ(xfconf.style(), "0");
        EXPECT_TRUE(cleaner->current().hideIcons);
        EXPECT_EQ(launcher.commands, QStringList{reload});
        EXPECT_TRUE(lastLogLine().endsWith(
            "Mesa limpa: Desired(hideIcons: true, hideWidgets: false, clickOnlyInStageManager: false)"
            " (reiniciou [\"xfce4-desktop\"])"))
            << lastLogLine().toStdString();
        EXPECT_EQ(snapshotEntry().value("exists").toBool(), c.before.has_value());

        cleaner->restore();
        EXPECT_EQ(xfconf.style(), c.before ? std::optional(QString::number(*c.before)) : std::nullopt);
        EXPECT_FALSE(cleaner->current().hideIcons);
        EXPECT_EQ(launcher.commands, (QStringList{reload, reload}));
        EXPECT_FALSE(settings->desktopSnapshot().has_value());
        EXPECT_TRUE(lastLogLine().endsWith("Mesa limpa: restaurado (reiniciou [\"xfce4-desktop\"])"));

        // Nothing left to put back.
        cleaner->restore();
        EXPECT_EQ(launcher.commands.size(), 2);
        EXPECT_TRUE(lastLogLine().endsWith("Mesa limpa: restaurado (reiniciou [])"));
    }
}

TEST_F(DesktopCleanerXfconfTest, LaterAppliesKeepTheFirstSnapshot)
{
    xfconf.setStyle(1);
    ASSERT_NO_FATAL_FAILURE(makeCleaner());
    cleaner->apply(hide());
    ASSERT_EQ(snapshotEntry().value("value").toInt(), 1);

    // Showing again writes the default style, not the saved one; the snapshot stays as it was.
    cleaner->apply(show());
    EXPECT_EQ(xfconf.style(), "2");
    cleaner->apply(hide());
    EXPECT_EQ(xfconf.style(), "0");
    EXPECT_TRUE(snapshotEntry().value("exists").toBool());
    EXPECT_EQ(snapshotEntry().value("value").toInt(), 1);
    EXPECT_EQ(launcher.commands.size(), 3);

    cleaner->restore();
    EXPECT_EQ(xfconf.style(), "1");
    // The restored value keeps its type, so xfdesktop still reads it.
    const auto typed = xfconf.query({"-p", stylePath, "-n", "-t", "int", "-s", "1"});
    EXPECT_EQ(typed.exitCode, 0) << typed.err.toStdString();
}

TEST_F(DesktopCleanerXfconfTest, OnlyXfceAndGnomeHaveABackEnd)
{
    EXPECT_NE(linuxDesktopPreferences("XFCE"), nullptr);
    EXPECT_NE(linuxDesktopPreferences("Xubuntu:XFCE"), nullptr);
    EXPECT_EQ(linuxDesktopPreferences("KDE"), nullptr);
    EXPECT_EQ(linuxDesktopPreferences(""), nullptr);

    // Without a back end the cleaner says so and touches nothing.
    xfconf.setStyle(2);
    DesktopCleaner none(*settings, linuxDesktopPreferences("KDE"), launcher);
    EXPECT_FALSE(none.available());
    EXPECT_EQ(none.statusText(), "Hiding desktop icons is not available on this desktop.");
    EXPECT_FALSE(none.supports(DesktopPreferences::Control::hideIcons));
    xfconf.writesSinceLastCheck();
    none.apply(hide());
    none.restore();
    EXPECT_EQ(xfconf.writesSinceLastCheck(), 0);
    EXPECT_FALSE(settings->desktopSnapshot().has_value());
    EXPECT_TRUE(launcher.commands.isEmpty());

    ASSERT_NO_FATAL_FAILURE(makeCleaner());
    EXPECT_TRUE(cleaner->statusText().isEmpty());
    EXPECT_TRUE(cleaner->supports(DesktopPreferences::Control::hideIcons));
    EXPECT_FALSE(cleaner->supports(DesktopPreferences::Control::hideWidgets));
}
