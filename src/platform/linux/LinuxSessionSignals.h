#pragma once

#include "core/scheduling/SessionSignals.h"

#include <QDBusConnection>
#include <QString>
#include <QStringList>
#include <QVariantMap>

// Lock, sleep and session switches on Linux.
//
// Locked: ActiveChanged of the ScreenSaver interfaces that desktops publish on the session bus
// (freedesktop, GNOME, Cinnamon, MATE; any sender, any path), and logind's LockedHint of our
// session on the system bus. Several of them report the same lock, so the latest report wins
// and only a change of state is signalled; a source that never reports the unlock cannot
// hold the room still once another one has.
// Asleep: logind's PrepareForSleep. Active: logind's Active of our session.
//
// Our session is $XDG_SESSION_ID's, else the one logind gives for this process; without one
// (no logind, a process outside any session) the session's properties are not followed. The
// states start as unlocked, awake and active. Signals are emitted on the main thread.
class LinuxSessionSignals : public SessionSignals {
    Q_OBJECT
public:
    static constexpr int callTimeoutMs = 500;

    explicit LinuxSessionSignals(const QDBusConnection &sessionBus = QDBusConnection::sessionBus(),
                                 const QDBusConnection &systemBus = QDBusConnection::systemBus(),
                                 QObject *parent = nullptr);

    // logind's object path of our session; empty when none was found.
    QString sessionPath() const { return session; }

    static const QStringList &screenSaverInterfaces();

private slots:
    void screenSaverActiveChanged(bool active);
    void sessionPropertiesChanged(const QString &interface, const QVariantMap &changed, const QStringList &invalidated);
    void prepareForSleep(bool sleeping);

private:
    QString findSession();
    void setLocked(bool on);
    void setAsleep(bool on);
    void setActive(bool on);

    QDBusConnection sessionBus;
    QDBusConnection systemBus;
    QString session;
    bool locked = false;
    bool asleep = false;
    bool active = true;
};
