// The power monitor and the lock, sleep and session signals against real D-Bus services on a
// private bus that plays both the session and the system bus: UPower, power-profiles-daemon,
// logind and the screen savers, each played by python3-dbusmock.

#include "core/app/Log.h"
#include "core/app/Settings.h"
#include "core/environment/PowerMonitor.h"
#include "platform/linux/LinuxSessionSignals.h"
#include "platform/linux/UPowerPowerSource.h"
#include "PrivateBus.h"
#include "TestSupport.h"

#include <QCoreApplication>
#include <QDBusObjectPath>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

inline void PrintTo(const QString &s, std::ostream *os) { *os << '"' << s.toStdString() << '"'; }

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

QTemporaryDir &stateDir()
{
    static QTemporaryDir dir;
    return dir;
}
const bool logRedirected = [] {
    qputenv("XDG_STATE_HOME", stateDir().path().toUtf8());
    return true;
}();

QString logText() { return QString::fromUtf8(readFile(Log::path())); }

const QString kUPower = QStringLiteral("org.freedesktop.UPower");
const QString kUPowerPath = QStringLiteral("/org/freedesktop/UPower");
const QString kLogind = QStringLiteral("org.freedesktop.login1");
const QString kLogindPath = QStringLiteral("/org/freedesktop/login1");
const QString kManager = QStringLiteral("org.freedesktop.login1.Manager");
const QString kSession = QStringLiteral("org.freedesktop.login1.Session");

struct PowerSessionTest : ::testing::Test {
    PrivateBus bus;
    QTemporaryDir dir;
    std::unique_ptr<Settings> settings;
    qsizetype logStart = 0;

    void SetUp() override
    {
        ASSERT_TRUE(bus.ok()) << "no private dbus-daemon";
        settings = std::make_unique<Settings>(dir.filePath("turnelo.json"));
        logStart = logText().size();
    }

    // The log lines written since the test began.
    QStringList newLogLines() const
    {
        QStringList lines;
        const QString text = logText().mid(logStart);
        for (const QString &line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            lines.append(line.section(QLatin1Char(' '), 1));  // without the timestamp
        return lines;
    }

    std::unique_ptr<DbusMock> upower(const QString &parameters = {})
    {
        auto mock = DbusMock::fromTemplate(bus, QStringLiteral("upower"), kUPower, parameters);
        EXPECT_TRUE(mock->ok()) << mock->errors().toStdString();
        return mock;
    }

    void addBattery(DbusMock &mock, const QString &name)
    {
        const QDBusMessage reply = mock.callMock(
            kUPowerPath, QStringLiteral("AddDischargingBattery"),
            {name, QStringLiteral("Battery"), 80.0, qlonglong(3600)});
        ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    }

    void setOnBattery(DbusMock &mock, bool on)
    {
        const QDBusMessage reply =
            mock.setProperty(kUPowerPath, kUPower, QStringLiteral("OnBattery"), on);
        ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    }
};

TEST_F(PowerSessionTest, UnpluggingOnUPowerLogsOnceAndEngagesTheSaver)
{
    auto service = upower();
    const QDBusMessage ac = service->callMock(kUPowerPath, QStringLiteral("AddAC"),
                                              {QStringLiteral("ac"), QStringLiteral("Mains")});
    ASSERT_EQ(ac.type(), QDBusMessage::ReplyMessage) << ac.errorMessage().toStdString();
    addBattery(*service, QStringLiteral("bat0"));

    UPowerPowerSource source(bus.connect(QStringLiteral("app")));
    PowerMonitor monitor(*settings, &source);
    EXPECT_TRUE(monitor.hasBattery());
    EXPECT_FALSE(monitor.onBattery());
    EXPECT_FALSE(monitor.ecoActive());
    std::vector<bool> flips;
    QObject::connect(&monitor, &PowerMonitor::ecoActiveChanged,
                     [&](bool active) { flips.push_back(active); });

    setOnBattery(*service, true);
    ASSERT_TRUE(waitUntil([&] { return monitor.onBattery(); }, 10s));
    EXPECT_TRUE(monitor.ecoActive());

    // The same reading again, then back on mains; signals of one service arrive in order, so
    // the mains line proves the second reading was handled.
    setOnBattery(*service, true);
    setOnBattery(*service, false);
    ASSERT_TRUE(waitUntil([&] { return !monitor.onBattery(); }, 10s));
    EXPECT_EQ(newLogLines(), (QStringList{QStringLiteral("Energia: bateria"),
                                          QStringLiteral("Energia: tomada")}));
    EXPECT_EQ(flips, (std::vector<bool>{true, false}));
}

TEST_F(PowerSessionTest, BatteriesCountWhenTheyPowerTheMachine)
{
    // On battery at start: the first reading is a change from the initial mains state.
    auto service = upower(QStringLiteral(R"({"OnBattery": true})"));
    // A battery-kind device that does not power the machine (a UPS seen through USB, say).
    addBattery(*service, QStringLiteral("ups"));
    const QDBusObjectPath ups(QStringLiteral("/org/freedesktop/UPower/devices/ups"));
    const QDBusMessage set = service->callMock(
        kUPowerPath, QStringLiteral("SetDeviceProperties"),
        {QVariant::fromValue(ups),
         QVariantMap{{QStringLiteral("PowerSupply"), false}}});
    ASSERT_EQ(set.type(), QDBusMessage::ReplyMessage) << set.errorMessage().toStdString();

    UPowerPowerSource source(bus.connect(QStringLiteral("app")));
    PowerMonitor monitor(*settings, &source);
    EXPECT_TRUE(monitor.onBattery());
    EXPECT_FALSE(monitor.hasBattery());
    EXPECT_EQ(newLogLines(), QStringList{QStringLiteral("Energia: bateria")});

    addBattery(*service, QStringLiteral("bat0"));
    EXPECT_TRUE(waitUntil([&] { return monitor.hasBattery(); }, 10s));
}

TEST_F(PowerSessionTest, WithoutUPowerThereIsNoPowerInformation)
{
    UPowerPowerSource source(bus.connect(QStringLiteral("app")));
    EXPECT_FALSE(source.read().has_value());
    EXPECT_FALSE(source.lowPowerMode());
    PowerMonitor monitor(*settings, &source);
    EXPECT_FALSE(monitor.onBattery());
    EXPECT_FALSE(monitor.hasBattery());
    EXPECT_TRUE(newLogLines().isEmpty());
}

TEST_F(PowerSessionTest, PowerSaverProfileIsLowPowerModeUnderEitherServiceName)
{
    auto service = upower();
    settings->setEcoTrigger(Settings::EcoTrigger::lowPower);
    const QString hadess = QStringLiteral("net.hadess.PowerProfiles");
    const QString hadessPath = QStringLiteral("/net/hadess/PowerProfiles");
    auto profiles = DbusMock::fromTemplate(bus, QStringLiteral("power_profiles_daemon"), hadess);
    ASSERT_TRUE(profiles->ok()) << profiles->errors().toStdString();

    UPowerPowerSource source(bus.connect(QStringLiteral("app")));
    PowerMonitor monitor(*settings, &source);
    EXPECT_FALSE(monitor.lowPowerMode());
    std::vector<bool> flips;
    QObject::connect(&monitor, &PowerMonitor::ecoActiveChanged,
                     [&](bool active) { flips.push_back(active); });

    const QDBusMessage set = profiles->setProperty(
        hadessPath, hadess, QStringLiteral("ActiveProfile"), QStringLiteral("power-saver"));
    ASSERT_EQ(set.type(), QDBusMessage::ReplyMessage) << set.errorMessage().toStdString();
    ASSERT_TRUE(waitUntil([&] { return monitor.ecoActive(); }, 10s));
    EXPECT_TRUE(monitor.lowPowerMode());
    EXPECT_FALSE(monitor.onBattery());

    // The daemon going away takes its profile with it.
    profiles.reset();
    ASSERT_TRUE(waitUntil([&] { return !monitor.ecoActive(); }, 10s));

    // The current name, on a service that gains the property after it appeared.
    const QString current = QStringLiteral("org.freedesktop.UPower.PowerProfiles");
    const QString currentPath = QStringLiteral("/org/freedesktop/UPower/PowerProfiles");
    auto renamed = DbusMock::bare(bus, current, currentPath, current);
    ASSERT_TRUE(renamed->ok()) << renamed->errors().toStdString();
    const QVariant balanced = QVariant::fromValue(QDBusVariant(QStringLiteral("balanced")));
    QDBusMessage reply = renamed->callMock(currentPath, QStringLiteral("AddProperty"),
                                           {QString(), QStringLiteral("ActiveProfile"), balanced});
    ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    reply = renamed->callMock(currentPath, QStringLiteral("UpdateProperties"),
                              {QString(), QVariantMap{{QStringLiteral("ActiveProfile"),
                                                       QStringLiteral("power-saver")}}});
    ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    ASSERT_TRUE(waitUntil([&] { return monitor.ecoActive(); }, 10s));
    EXPECT_EQ(flips, (std::vector<bool>{true, false, true}));
}

// Records the session signals in arrival order.
struct SessionEvents {
    QStringList seen;
    explicit SessionEvents(SessionSignals &source)
    {
        QObject::connect(&source, &SessionSignals::lockedChanged,
                         [this](bool on) { seen.append(QStringLiteral("locked %1").arg(on)); });
        QObject::connect(&source, &SessionSignals::asleepChanged,
                         [this](bool on) { seen.append(QStringLiteral("asleep %1").arg(on)); });
        QObject::connect(&source, &SessionSignals::activeChanged,
                         [this](bool on) { seen.append(QStringLiteral("active %1").arg(on)); });
    }
    bool waitFor(const QStringList &expected)
    {
        return waitUntil([&] { return seen.size() >= expected.size(); }, 10s) && seen == expected;
    }
};

struct SessionSignalsTest : PowerSessionTest {
    std::unique_ptr<DbusMock> logind;

    void startLogind()
    {
        logind = DbusMock::fromTemplate(bus, QStringLiteral("logind"), kLogind);
        ASSERT_TRUE(logind->ok()) << logind->errors().toStdString();
    }
    QString addSession(const QString &id)
    {
        const QDBusMessage reply = logind->callMock(
            kLogindPath, QStringLiteral("AddSession"),
            {id, QStringLiteral("seat0"), uint(1000), QStringLiteral("tester"), true});
        EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
        return reply.arguments().value(0).toString();
    }
    void setLockedHint(const QString &sessionPath, bool on)
    {
        const QDBusMessage reply =
            logind->call(sessionPath, kSession, QStringLiteral("SetLockedHint"), {on});
        ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    }
    void prepareForSleep(bool on)
    {
        const QDBusMessage reply = logind->callMock(
            kLogindPath, QStringLiteral("EmitSignal"),
            {kManager, QStringLiteral("PrepareForSleep"), QStringLiteral("b"), QVariantList{on}});
        ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    }
};

TEST_F(SessionSignalsTest, EveryLockerAndLogindReportOneLockSleepAndSessionSwitch)
{
    ScopedEnv sessionId("XDG_SESSION_ID", "c1");
    startLogind();
    const QString ours = addSession(QStringLiteral("c1"));
    const QString other = addSession(QStringLiteral("c2"));
    auto gnome = DbusMock::fromTemplate(bus, QStringLiteral("gnome_screensaver"),
                                        QStringLiteral("org.gnome.ScreenSaver"));
    ASSERT_TRUE(gnome->ok()) << gnome->errors().toStdString();
    const QString freedesktop = QStringLiteral("org.freedesktop.ScreenSaver");
    auto xfce = DbusMock::bare(bus, freedesktop, QStringLiteral("/ScreenSaver"), freedesktop);
    ASSERT_TRUE(xfce->ok()) << xfce->errors().toStdString();
    const auto xfceActive = [&](bool on) {
        const QDBusMessage reply = xfce->callMock(
            QStringLiteral("/ScreenSaver"), QStringLiteral("EmitSignal"),
            {QString(), QStringLiteral("ActiveChanged"), QStringLiteral("b"), QVariantList{on}});
        ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    };
    const auto gnomeActive = [&](bool on) {
        const QDBusMessage reply = gnome->call(QStringLiteral("/org/gnome/ScreenSaver"),
                                               QStringLiteral("org.gnome.ScreenSaver"),
                                               QStringLiteral("SetActive"), {on});
        ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    };

    // One connection for both buses keeps the services' signals in the order they were sent.
    QDBusConnection connection = bus.connect(QStringLiteral("app"));
    LinuxSessionSignals session(connection, connection);
    EXPECT_EQ(session.sessionPath(), ours);
    SessionEvents events(session);

    gnomeActive(true);
    ASSERT_TRUE(events.waitFor({"locked 1"})) << events.seen.join(", ").toStdString();
    // The same lock from the other locker and from logind.
    xfceActive(true);
    setLockedHint(ours, true);
    prepareForSleep(true);
    ASSERT_TRUE(events.waitFor({"locked 1", "asleep 1"})) << events.seen.join(", ").toStdString();

    prepareForSleep(false);
    setLockedHint(ours, false);
    gnomeActive(false);
    xfceActive(false);
    // Another session's lock is not ours.
    setLockedHint(other, true);
    const QDBusMessage inactive =
        logind->setProperty(ours, kSession, QStringLiteral("Active"), false);
    ASSERT_EQ(inactive.type(), QDBusMessage::ReplyMessage) << inactive.errorMessage().toStdString();
    ASSERT_TRUE(events.waitFor({"locked 1", "asleep 1", "asleep 0", "locked 0", "active 0"}))
        << events.seen.join(", ").toStdString();
}

TEST_F(SessionSignalsTest, WithoutXdgSessionIdLogindIsAskedForThisProcesssSession)
{
    ScopedEnv sessionId("XDG_SESSION_ID", "");
    QDBusConnection connection = bus.connect(QStringLiteral("app"));
    {
        // No logind at all: no session, and nothing waits long for one.
        LinuxSessionSignals lonely(connection, connection);
        EXPECT_TRUE(lonely.sessionPath().isEmpty());
    }

    startLogind();
    const QString ours = addSession(QStringLiteral("c7"));
    const QDBusMessage added = logind->callMock(
        kLogindPath, QStringLiteral("AddMethod"),
        {kManager, QStringLiteral("GetSessionByPID"), QStringLiteral("u"), QStringLiteral("o"),
         QStringLiteral("if args[0] != %1: raise dbus.exceptions.DBusException('no session', "
                        "name='org.freedesktop.login1.NoSessionForPID')\n"
                        "ret = '%2'").arg(QCoreApplication::applicationPid()).arg(ours)});
    ASSERT_EQ(added.type(), QDBusMessage::ReplyMessage) << added.errorMessage().toStdString();

    LinuxSessionSignals session(connection, connection);
    EXPECT_EQ(session.sessionPath(), ours);
    SessionEvents events(session);
    // A service may only name the property that changed; its value is then asked for.
    QDBusMessage reply = logind->callMock(
        ours, QStringLiteral("AddMethod"),
        {kSession, QStringLiteral("LockQuietly"), QString(), QString(),
         QStringLiteral("self.props['%1']['LockedHint'] = True").arg(kSession)});
    ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    reply = logind->call(ours, kSession, QStringLiteral("LockQuietly"));
    ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    reply = logind->callMock(
        ours, QStringLiteral("EmitSignal"),
        {QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("PropertiesChanged"),
         QStringLiteral("sa{sv}as"),
         QVariantList{kSession, QVariantMap{}, QStringList{QStringLiteral("LockedHint")}}});
    ASSERT_EQ(reply.type(), QDBusMessage::ReplyMessage) << reply.errorMessage().toStdString();
    EXPECT_TRUE(events.waitFor({"locked 1"})) << events.seen.join(", ").toStdString();
}

}  // namespace
