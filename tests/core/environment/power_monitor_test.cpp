// The battery saver's rule and its stored choices, with a power source the test sets by hand.
// The monitor against real power services is in tests/platform/power_session_test.cpp.

#include "core/app/Settings.h"
#include "core/environment/PowerMonitor.h"
#include "core/environment/PowerSource.h"
#include "TestSupport.h"

#include <QJsonDocument>
#include <QJsonObject>
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

    monitor.setEcoEnabled(false);
    for (const auto trigger : PowerMonitor::triggers())
        for (const int power : {0, 1, 2, 3}) {  // on battery: bit 0; Low Power Mode: bit 1
            monitor.setTrigger(trigger);
            source.set(power & 1, true, power & 2);
            EXPECT_FALSE(monitor.ecoActive()) << "disabled: " << PowerMonitor::rawValue(trigger).toStdString() << power;
        }
    EXPECT_EQ(flips, (std::vector<bool>{true, false, true, false}));
}

TEST(PowerMonitor, ChoicesAreWrittenOnlyWhenChangedAndReadBack)
{
    QTemporaryDir dir;
    const QString file = dir.filePath("turnelo.json");
    const auto stored = [&] { return QJsonDocument::fromJson(testsupport::readFile(file)).object(); };
    Settings settings(file);
    PowerMonitor monitor(settings, nullptr);
    int changes = 0;
    QObject::connect(&monitor, &PowerMonitor::changed, [&] { ++changes; });
    monitor.setEcoEnabled(true);
    monitor.setTrigger(PowerMonitor::Trigger::battery);
    EXPECT_EQ(changes, 0);
    EXPECT_FALSE(stored().contains("ecoMode") || stored().contains("ecoTrigger"));

    monitor.setEcoEnabled(false);
    monitor.setTrigger(PowerMonitor::Trigger::lowPower);
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(stored().value("ecoMode"), QJsonValue(false));
    EXPECT_EQ(stored().value("ecoTrigger"), QJsonValue("lowPower"));

    Settings reread(file);
    PowerMonitor again(reread, nullptr);
    EXPECT_FALSE(again.ecoEnabled());
    EXPECT_EQ(again.trigger(), PowerMonitor::Trigger::lowPower);
}
