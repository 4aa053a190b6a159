#pragma once

#include "core/app/Settings.h"

#include <QList>
#include <QObject>
#include <QString>

class PowerSource;

// The battery saver's state: the power source, the system's Low Power Mode and the user's two
// choices, reduced to one answer for the scene, ecoActive(). The user's choices persist under
// "ecoMode" and "ecoTrigger".
//
// Created once and kept for the whole process. Main thread only; the power source's signals
// are handled where they arrive.
class PowerMonitor : public QObject {
    Q_OBJECT
public:
    using Trigger = Settings::EcoTrigger;

    // All triggers, in picker order.
    static QList<Trigger> triggers();
    // "battery" / "lowPower", as stored.
    static QString rawValue(Trigger trigger);
    // The picker's title of a trigger.
    static QString title(Trigger trigger);

    // `settings` must outlive the monitor. `source` is not owned and may be null (no power
    // information: only Low Power Mode could engage the saver, and without a source there is
    // none); when given it must outlive the monitor. Reads the settings and the power state and
    // starts following the source.
    PowerMonitor(Settings &settings, PowerSource *source, QObject *parent = nullptr);

    bool onBattery() const { return battery; }
    bool lowPowerMode() const { return lowPower; }
    bool hasBattery() const { return batteryPresent; }
    bool ecoEnabled() const { return enabled; }
    Trigger trigger() const { return chosenTrigger; }

    // Off when disabled; otherwise Low Power Mode always engages it, and running on battery
    // engages it with the battery trigger only.
    bool ecoActive() const;

    // Store and publish when the value differs.
    void setEcoEnabled(bool on);
    void setTrigger(Trigger trigger);

    // Takes a reading of the power source: publishes what differs, logs a change of source.
    // Without power information nothing changes.
    void read();

signals:
    // Any of the properties above changed.
    void changed();
    // ecoActive() flipped; carries the new value.
    void ecoActiveChanged(bool active);

private:
    void readLowPowerMode();
    // Runs `change`, then publishes: changed() when `touched` reports a change, and
    // ecoActiveChanged() when the answer flipped.
    template <typename Change> void publishing(Change &&change);

    Settings &settings;
    PowerSource *source;
    bool battery = false;
    bool lowPower = false;
    bool batteryPresent = false;
    bool enabled = true;
    Trigger chosenTrigger = Trigger::battery;
};
