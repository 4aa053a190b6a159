// The battery saver's rule and its stored choices, with a power source the test sets by hand.
// The monitor against real power services is in tests/platform/power_session_test.cpp.

#include "core/app/Settings.h"
#include "core/environment/PowerMonitor.h"
#include "core/environment/PowerSource.h"
#include "TestSupport.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

using namespace testsupport;

namespace {

class HandSetPowerSource : public PowerSource {
public:
    std::optional<Reading> reading = Reading{};
    bool lowPower = false;

    std::optional<Reading> read() override { return reading; }
    bool lowPowerMode() override { return lowPower; }

    void set(bool onBattery, bool hasBattery, bool lowPowerMode)
    {
        reading = Reading{onBattery, hasBattery};
        const bool modeChanged = lowPowerMode != lowPower;
        lowPower = lowPowerMode;
        emit changed();
        if (modeChanged) emit lowPowerModeChanged();
    }
};

struct PowerMonitorTest : ::testing::Test {
    QTemporaryDir dir;
    QString file() const { return dir.filePath("turnelo.json"); }

    void store(const QJsonObject &values) { writeFile(file(), QJsonDocument(values).toJson()); }
    QJsonObject stored() const { return QJsonDocument::fromJson(readFile(file())).object(); }
};

TEST_F(PowerMonitorTest, LowPowerModeAlwaysEngagesAnEnabledSaverBatteryOnlyWithItsTrigger)
{
    Settings settings(file());
    {
        // Without power information, or without a source, only Low Power Mode engages the saver.
        HandSetPowerSource unknown;
        unknown.reading.reset();
        unknown.lowPower = true;
        PowerMonitor blind(settings, &unknown), none(settings, nullptr);
        EXPECT_FALSE(blind.onBattery() || blind.hasBattery());
        EXPECT_TRUE(blind.ecoActive());
        EXPECT_FALSE(none.ecoActive());
    }
    HandSetPowerSource source;
    PowerMonitor monitor(settings, &source);
    std::vector<bool> flips;
    QObject::connect(&monitor, &PowerMonitor::ecoActiveChanged, [&](bool active) { flips.push_back(active); });
    ASSERT_TRUE(monitor.ecoEnabled());
    ASSERT_EQ(monitor.trigger(), PowerMonitor::Trigger::battery);

    source.set(false, true, true);  // mains, Low Power Mode on
    EXPECT_TRUE(monitor.lowPowerMode());
    EXPECT_TRUE(monitor.ecoActive());
    source.set(true, true, false);  // on battery, Low Power Mode off
    EXPECT_TRUE(monitor.onBattery());
    EXPECT_TRUE(monitor.ecoActive());
    EXPECT_EQ(flips, (std::vector<bool>{true}));  // stayed active in between

    monitor.setTrigger(PowerMonitor::Trigger::lowPower);
    EXPECT_FALSE(monitor.ecoActive());
    source.set(true, true, true);
    EXPECT_TRUE(monitor.ecoActive());
    EXPECT_EQ(flips, (std::vector<bool>{true, false, true}));

    monitor.setEcoEnabled(false);
    for (const auto trigger : PowerMonitor::triggers()) {
        monitor.setTrigger(trigger);
        for (const bool onBattery : {false, true})
            for (const bool lowPower : {false, true}) {
                source.set(onBattery, true, lowPower);
                EXPECT_FALSE(monitor.ecoActive())
                    << "disabled, trigger " << PowerMonitor::rawValue(trigger).toStdString() << ", battery "
                    << onBattery << ", low power " << lowPower;
            }
    }
    EXPECT_EQ(flips, (std::vector<bool>{true, false, true, false}));
}

TEST_F(PowerMonitorTest, StoredChoicesAreReadLenientlyAndWrittenOnlyWhenChanged)
{
    store({{"ecoTrigger", "Battery"}, {"ecoMode", "no"}});
    Settings lenient(file());
    HandSetPowerSource source;
    source.reading = PowerSource::Reading{true, true};
    PowerMonitor first(lenient, &source);
    EXPECT_EQ(first.trigger(), PowerMonitor::Trigger::battery);
    EXPECT_TRUE(first.ecoEnabled());
    EXPECT_TRUE(first.ecoActive());

    QFile::remove(file());
    Settings settings(file());
    PowerMonitor monitor(settings, nullptr);
    int changes = 0;
    QObject::connect(&monitor, &PowerMonitor::changed, [&] { ++changes; });
    monitor.setEcoEnabled(true);
    monitor.setTrigger(PowerMonitor::Trigger::battery);
    EXPECT_EQ(changes, 0);
    EXPECT_FALSE(stored().contains("ecoMode"));
    EXPECT_FALSE(stored().contains("ecoTrigger"));

    monitor.setEcoEnabled(false);
    monitor.setTrigger(PowerMonitor::Trigger::lowPower);
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(stored().value("ecoMode"), QJsonValue(false));
    EXPECT_EQ(stored().value("ecoTrigger"), QJsonValue("lowPower"));

    Settings reread(file());
    PowerMonitor again(reread, nullptr);
    EXPECT_FALSE(again.ecoEnabled());
    EXPECT_EQ(again.trigger(), PowerMonitor::Trigger::lowPower);
}

}  // namespace
