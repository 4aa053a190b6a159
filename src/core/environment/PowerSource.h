#pragma once

#include <QObject>
#include <optional>

// Where the power monitor learns about the machine's power: the platform's power service and
// its Low Power Mode. Implementations answer on the main thread and may block it briefly (a
// short call to a system service); they never start watching anything that outlives them.
class PowerSource : public QObject {
    Q_OBJECT
public:
    struct Reading {
        bool onBattery = false;   // drawing power from a battery now
        bool hasBattery = false;  // the machine has a battery that powers it
    };

    using QObject::QObject;
    ~PowerSource() override = default;

    // None when the system offers no power information at all.
    virtual std::optional<Reading> read() = 0;
    // The system's Low Power Mode; false when the system has none.
    virtual bool lowPowerMode() = 0;

signals:
    // The power source or the batteries changed: read() again.
    void changed();
    // Low Power Mode may have been switched: lowPowerMode() again.
    void lowPowerModeChanged();
};
