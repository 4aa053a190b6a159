#pragma once

#include <QObject>

// The system events that hide the room from everybody: a locked screen, screens asleep, the
// session switched away. Each signal carries the new state and fires on changes only, on the
// main thread.
class SessionSignals : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;
    ~SessionSignals() override = default;

signals:
    void lockedChanged(bool locked);
    void asleepChanged(bool asleep);
    void activeChanged(bool active);
};
