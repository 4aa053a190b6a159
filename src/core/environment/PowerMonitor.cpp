#include "core/environment/PowerMonitor.h"

#include "core/app/Log.h"
#include "core/environment/PowerSource.h"

QList<PowerMonitor::Trigger> PowerMonitor::triggers() { return {Trigger::battery, Trigger::lowPower}; }

QString PowerMonitor::rawValue(Trigger trigger)
{
    return trigger == Trigger::lowPower ? QStringLiteral("lowPower") : QStringLiteral("battery");
}

QString PowerMonitor::title(Trigger trigger)
{
    return trigger == Trigger::lowPower ? QStringLiteral("Only in Low Power Mode")
                                        : QStringLiteral("Whenever on battery");
}

PowerMonitor::PowerMonitor(Settings &settings, PowerSource *source, QObject *parent)
    : QObject(parent)
    , settings(settings)
    , source(source)
{
    lowPower = source && source->lowPowerMode();
    enabled = settings.ecoMode();
    chosenTrigger = settings.ecoTrigger();
    read();
    if (source) {
        connect(source, &PowerSource::changed, this, &PowerMonitor::read);
        connect(source, &PowerSource::lowPowerModeChanged, this, &PowerMonitor::readLowPowerMode);
    }
    // The same choices written elsewhere (the settings window, turnelo-defaults).
    connect(&settings, &Settings::changed, this, [this](const QString &key) {
        if (key == QLatin1String("ecoMode"))
            setEcoEnabled(this->settings.ecoMode());
        else if (key == QLatin1String("ecoTrigger"))
            setTrigger(this->settings.ecoTrigger());
    });
}

bool PowerMonitor::ecoActive() const
{
    if (!enabled) return false;
    if (chosenTrigger == Trigger::battery) return battery || lowPower;
    return lowPower;
}

template <typename Change> void PowerMonitor::publishing(Change &&change)
{
    const bool wasActive = ecoActive();
    if (!change()) return;
    emit changed();
    const bool active = ecoActive();
    if (active != wasActive) emit ecoActiveChanged(active);
}

void PowerMonitor::setEcoEnabled(bool on)
{
    publishing([&] {
        if (on == enabled) return false;
        enabled = on;
        settings.setEcoMode(on);
        return true;
    });
}

void PowerMonitor::setTrigger(Trigger trigger)
{
    publishing([&] {
        if (trigger == chosenTrigger) return false;
        chosenTrigger = trigger;
        settings.setEcoTrigger(trigger);
        return true;
    });
}

void PowerMonitor::read()
{
    if (!source) return;
    const std::optional<PowerSource::Reading> reading = source->read();
    if (!reading) return;
    publishing([&] {
        bool any = false;
        if (reading->hasBattery != batteryPresent) {
            batteryPresent = reading->hasBattery;
            any = true;
        }
        if (reading->onBattery != battery) {
            battery = reading->onBattery;
            Log::write(QStringLiteral("Energia: ") + (battery ? QStringLiteral("bateria") : QStringLiteral("tomada")));
            any = true;
        }
        return any;
    });
}

void PowerMonitor::readLowPowerMode()
{
    const bool now = source->lowPowerMode();
    publishing([&] {
        if (now == lowPower) return false;
        lowPower = now;
        return true;
    });
}
