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
        for (const QString &line : logText().mid(logStart).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
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
        const QDBusMessage reply = mock.setProperty(kUPowerPath, kUPower, QStringLiteral("OnBattery"), on);
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
    const QDBusMessage set = service->callMock(
        kUPowerPath, QStringLiteral("SetDeviceProperties"),
        {QVariant::fromValue(QDBusObjectPath(QStringLiteral("/org/freedesktop/UPower/devices/ups"))),
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

}  // namespace
