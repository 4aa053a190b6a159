// The battery saver's rule and its stored choices, with a power source the test sets by hand.
// The monitor against real power services is in tests/platform/power_session_test.cpp.

#include "core/app/Settings.h"
#include "core/environment/PowerMonitor.h"
#include "core/environment/PowerSource.h"
#include "TestSupport.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <vector>

namespace {

struct HandSetPowerSource : PowerSource {
    std::optional<Reading> reading = Reading{};
    bool lowPower = false;

    std::optional<Reading> read() override { return reading; }
    bool lowPowerMode() override { return lowPower; }

    void set(bool onBattery, bool hasBattery, bool lowPowerMode)
    {
        reading = Reading{onBattery, hasBattery};
        lowPower = lowPowerMode;
        emit changed();
        emit lowPowerModeChanged();
    }
};

}  // namespace

TEST(PowerMonitor, LowPowerModeAlwaysEngagesAnEnabledSaverBatteryOnlyWithItsTrigger)
{
    QTemporaryDir dir;
    Settings settings(dir.filePath("turnelo.json"));
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

    source.set(false, true, true);  // the default battery trigger; mains, Low Power Mode on
    EXPECT_TRUE(monitor.lowPowerMode());
    EXPECT_TRUE(monitor.ecoActive());
    source.set(true, true, false);  // on battery, Low Power Mode off
    EXPECT_TRUE(monitor.onBattery());
    EXPECT_EQ(flips, (std::vector<bool>{true}));  // stayed active in between

    monitor.setTrigger(PowerMonitor::Trigger::lowPower);
    EXPECT_FALSE(monitor.ecoActive());
    source.set(true, true, true);
    EXPECT_EQ(flips, (std::vector<bool>{true, false, true}));

    // Switched off, neither trigger engages it, even on battery in Low Power Mode.
    monitor.setEcoEnabled(false);
    for (const auto trigger : PowerMonitor::triggers()) {
        monitor.setTrigger(trigger);
        source.set(true, true, true);  // a fresh reading changes nothing
        EXPECT_FALSE(monitor.ecoActive()) << PowerMonitor::rawValue(trigger).toStdString();
    }
    EXPECT_EQ(flips, (std::vector<bool>{true, false, true, false}));
}
