// The power monitor and the lock, sleep and session signals against UPower, power-profiles-daemon, logind
// and the screen savers played by python3-dbusmock on a private bus that is both session and system bus.

#include "core/app/Settings.h"
#include "core/environment/PowerMonitor.h"
#include "platform/linux/LinuxSessionSignals.h"
#include "platform/linux/UPowerPowerSource.h"
#include "PrivateBus.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

const QString kUPower = "org.freedesktop.UPower";
const QString kUPowerPath = "/org/freedesktop/UPower";
const QString kLogindPath = "/org/freedesktop/login1";
const QString kManager = "org.freedesktop.login1.Manager";
const QString kSession = "org.freedesktop.login1.Session";

struct PowerSessionTest : ::testing::Test {
    LogTail log;
    PrivateBus bus;
    QTemporaryDir dir;
    Settings settings{dir.filePath("turnelo.json")};

    void SetUp() override { ASSERT_TRUE(bus.ok()) << "no private dbus-daemon"; }

    static std::unique_ptr<DbusMock> started(std::unique_ptr<DbusMock> mock)
    {
        EXPECT_TRUE(mock->ok()) << mock->errors().toStdString();
        return mock;
    }
    static QDBusMessage setOnBattery(DbusMock &mock, bool on)
    {
        return mock.setProperty(kUPowerPath, kUPower, "OnBattery", on);
    }
};

TEST_F(PowerSessionTest, UPowerReadingsAndThePowerSaverProfileEngageTheSaver)
{
    // Without UPower there is no power information.
    UPowerPowerSource none(bus.connect("none"));
    EXPECT_FALSE(none.read().has_value());
    EXPECT_FALSE(none.lowPowerMode());

    // On battery at start; the mains is no battery. A battery added later, and the plug pulled and put
    // back, are seen as they happen.
    auto service = started(DbusMock::fromTemplate(bus, "upower", kUPower, R"({"OnBattery": true})"));
    ASSERT_TRUE(isReply(service->callMock(kUPowerPath, "AddAC", {"ac", "Mains"})));
    UPowerPowerSource source(bus.connect("app"));
    PowerMonitor monitor(settings, &source);
    EXPECT_TRUE(monitor.onBattery());
    EXPECT_FALSE(monitor.hasBattery());
    ASSERT_TRUE(
        isReply(service->callMock(kUPowerPath, "AddDischargingBattery", {"bat0", "Battery", 80.0, qlonglong(3600)})));
    ASSERT_TRUE(waitUntil([&] { return monitor.hasBattery(); }, 10s));
    EXPECT_TRUE(monitor.ecoActive());
    ASSERT_TRUE(isReply(setOnBattery(*service, false)));
    ASSERT_TRUE(waitUntil([&] { return !monitor.onBattery(); }, 10s));
    EXPECT_FALSE(monitor.ecoActive());
    ASSERT_TRUE(isReply(setOnBattery(*service, true)));
    ASSERT_TRUE(waitUntil([&] { return monitor.onBattery(); }, 10s));

    // The power-saver profile is Low Power Mode, under either name of power-profiles-daemon.
    monitor.setTrigger(PowerMonitor::Trigger::lowPower);
    ASSERT_FALSE(monitor.ecoActive());
    const QString hadess = "net.hadess.PowerProfiles";
    auto profiles = started(DbusMock::fromTemplate(bus, "power_profiles_daemon", hadess));
    ASSERT_TRUE(isReply(profiles->setProperty("/net/hadess/PowerProfiles", hadess, "ActiveProfile", "power-saver")));
    ASSERT_TRUE(waitUntil([&] { return monitor.ecoActive(); }, 10s)) << "under its older name";
    // The daemon going away takes its profile with it.
    profiles.reset();
    ASSERT_TRUE(waitUntil([&] { return !monitor.ecoActive(); }, 10s)) << "the daemon left";

    // The current name, on a service that gains the property after it appeared.
    const QString current = "org.freedesktop.UPower.PowerProfiles";
    const QString currentPath = "/org/freedesktop/UPower/PowerProfiles";
    auto renamed = started(DbusMock::bare(bus, current, currentPath, current));
    ASSERT_TRUE(isReply(renamed->callMock(
        currentPath, "AddProperty", {QString(), "ActiveProfile", QVariant::fromValue(QDBusVariant("balanced"))})));
    ASSERT_TRUE(isReply(renamed->callMock(currentPath, "UpdateProperties",
                                          {QString(), QVariantMap{{"ActiveProfile", "power-saver"}}})));
    EXPECT_TRUE(waitUntil([&] { return monitor.ecoActive(); }, 10s)) << "under its current name";
}

struct SessionSignalsTest : PowerSessionTest {
    std::unique_ptr<DbusMock> logind;
    QDBusConnection connection = bus.connect("app");
    QStringList seen;  // the session signals in arrival order

    void watch(SessionSignals &source)
    {
        for (const auto &[signal, name] : {std::pair{&SessionSignals::lockedChanged, "locked"},
                                           {&SessionSignals::asleepChanged, "asleep"},
                                           {&SessionSignals::activeChanged, "active"}})
            QObject::connect(&source, signal,
                             [this, name](bool on) { seen << QStringLiteral("%1 %2").arg(name).arg(on); });
    }
    ::testing::AssertionResult saw(const QStringList &expected)
    {
        if (waitUntil([&] { return seen.size() >= expected.size(); }, 10s) && seen == expected)
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "seen: " << seen.join(", ").toStdString();
    }
    QString addSession(const QString &id)
    {
        const QDBusMessage reply =
            logind->callMock(kLogindPath, "AddSession", {id, "seat0", uint(1000), "tester", true});
        EXPECT_TRUE(isReply(reply));
        return reply.arguments().value(0).toString();
    }
    void mock(DbusMock &service, const QString &path, const QString &method, const QVariantList &args)
    {
        ASSERT_TRUE(isReply(service.callMock(path, method, args)));
    }
};

TEST_F(SessionSignalsTest, EveryLockerAndLogindReportOneLockSleepAndSessionSwitch)
{
    ScopedEnv sessionId("XDG_SESSION_ID", "");
    logind = started(DbusMock::fromTemplate(bus, "logind", "org.freedesktop.login1"));
    const QString ours = addSession("c1"), other = addSession("c2");
    mock(*logind, kLogindPath, "AddMethod",
         {kManager, "GetSessionByPID", "u", "o",
          QStringLiteral("if args[0] != %1: raise dbus.exceptions.DBusException('no session', "
                         "name='org.freedesktop.login1.NoSessionForPID')\n"
                         "ret = '%2'")
              .arg(QCoreApplication::applicationPid())
              .arg(ours)});
    {
        // XDG_SESSION_ID names the session first; without it, logind is asked for this process's.
        ScopedEnv named("XDG_SESSION_ID", "c2");
        EXPECT_EQ(LinuxSessionSignals(connection, connection).sessionPath(), other);
    }
    auto gnome = started(DbusMock::fromTemplate(bus, "gnome_screensaver", "org.gnome.ScreenSaver"));
    const QString freedesktop = "org.freedesktop.ScreenSaver";
    auto xfce = started(DbusMock::bare(bus, freedesktop, "/ScreenSaver", freedesktop));
    const auto xfceActive = [&](bool on) {
        mock(*xfce, "/ScreenSaver", "EmitSignal", {QString(), "ActiveChanged", "b", QVariantList{on}});
    };
    const auto gnomeActive = [&](bool on) {
        EXPECT_TRUE(isReply(gnome->call("/org/gnome/ScreenSaver", "org.gnome.ScreenSaver", "SetActive", {on})));
    };
    const auto lockedHint = [&](const QString &session, bool on) {
        EXPECT_TRUE(isReply(logind->call(session, kSession, "SetLockedHint", {on})));
    };
    const auto prepareForSleep = [&](bool on) {
        mock(*logind, kLogindPath, "EmitSignal", {kManager, "PrepareForSleep", "b", QVariantList{on}});
    };

    // One connection for both buses keeps the services' signals in the order they were sent.
    LinuxSessionSignals session(connection, connection);
    EXPECT_EQ(session.sessionPath(), ours);
    watch(session);

    gnomeActive(true);
    ASSERT_TRUE(saw({"locked 1"}));
    // The same lock from the other locker and from logind.
    xfceActive(true);
    lockedHint(ours, true);
    prepareForSleep(true);
    ASSERT_TRUE(saw({"locked 1", "asleep 1"}));

    prepareForSleep(false);
    lockedHint(ours, false);
    gnomeActive(false);
    xfceActive(false);
    lockedHint(other, true);  // not ours
    ASSERT_TRUE(isReply(logind->setProperty(ours, kSession, "Active", false)));
    ASSERT_TRUE(saw({"locked 1", "asleep 1", "asleep 0", "locked 0", "active 0"}));

    // A service may only name the property that changed; its value is then asked for.
    mock(*logind, ours, "AddMethod",
         {kSession, "LockQuietly", QString(), QString(),
          QStringLiteral("self.props['%1']['LockedHint'] = True").arg(kSession)});
    ASSERT_TRUE(isReply(logind->call(ours, kSession, "LockQuietly")));
    mock(*logind, ours, "EmitSignal",
         {"org.freedesktop.DBus.Properties", "PropertiesChanged", "sa{sv}as",
          QVariantList{kSession, QVariantMap{}, QStringList{"LockedHint"}}});
    EXPECT_TRUE(saw({"locked 1", "asleep 1", "asleep 0", "locked 0", "active 0", "locked 1"}));
}

}  // namespace
