#include "platform/linux/LinuxSessionSignals.h"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <optional>
#include <unistd.h>

namespace {

const QString kLogindService = QStringLiteral("org.freedesktop.login1");
const QString kLogindPath = QStringLiteral("/org/freedesktop/login1");
const QString kManagerInterface = QStringLiteral("org.freedesktop.login1.Manager");
const QString kSessionInterface = QStringLiteral("org.freedesktop.login1.Session");
const QString kPropertiesInterface = QStringLiteral("org.freedesktop.DBus.Properties");
const QString kLockedHint = QStringLiteral("LockedHint");
const QString kActive = QStringLiteral("Active");

std::optional<QVariant> call(const QDBusConnection &bus, const QDBusMessage &message)
{
    const QDBusMessage reply = bus.call(message, QDBus::Block, LinuxSessionSignals::callTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return std::nullopt;
    return reply.arguments().constFirst();
}

QString pathOf(const std::optional<QVariant> &reply)
{
    if (!reply || reply->userType() != qMetaTypeId<QDBusObjectPath>()) return {};
    return reply->value<QDBusObjectPath>().path();
}

}  // namespace

const QStringList &LinuxSessionSignals::screenSaverInterfaces()
{
    static const QStringList names{QStringLiteral("org.freedesktop.ScreenSaver"),
                                   QStringLiteral("org.gnome.ScreenSaver"), QStringLiteral("org.cinnamon.ScreenSaver"),
                                   QStringLiteral("org.mate.ScreenSaver")};
    return names;
}

LinuxSessionSignals::LinuxSessionSignals(const QDBusConnection &sessionBus, const QDBusConnection &systemBus,
                                         QObject *parent)
    : SessionSignals(parent)
    , sessionBus(sessionBus)
    , systemBus(systemBus)
{
    // Screen lockers differ in bus name and object path but agree on the signal.
    for (const QString &interface : screenSaverInterfaces())
        this->sessionBus.connect(QString(), QString(), interface, QStringLiteral("ActiveChanged"), this,
                                 SLOT(screenSaverActiveChanged(bool)));

    this->systemBus.connect(kLogindService, kLogindPath, kManagerInterface, QStringLiteral("PrepareForSleep"), this,
                            SLOT(prepareForSleep(bool)));

    session = findSession();
    if (!session.isEmpty())
        this->systemBus.connect(kLogindService, session, kPropertiesInterface, QStringLiteral("PropertiesChanged"),
                                this, SLOT(sessionPropertiesChanged(QString, QVariantMap, QStringList)));
}

QString LinuxSessionSignals::findSession()
{
    const QString id = qEnvironmentVariable("XDG_SESSION_ID");
    if (!id.isEmpty()) {
        QDBusMessage message = QDBusMessage::createMethodCall(kLogindService, kLogindPath, kManagerInterface,
                                                              QStringLiteral("GetSession"));
        message << id;
        const QString path = pathOf(call(systemBus, message));
        if (!path.isEmpty()) return path;
    }
    QDBusMessage message = QDBusMessage::createMethodCall(kLogindService, kLogindPath, kManagerInterface,
                                                          QStringLiteral("GetSessionByPID"));
    message << uint(getpid());
    return pathOf(call(systemBus, message));
}

void LinuxSessionSignals::screenSaverActiveChanged(bool on) { setLocked(on); }

void LinuxSessionSignals::sessionPropertiesChanged(const QString &interface, const QVariantMap &changed,
                                                   const QStringList &invalidated)
{
    if (interface != kSessionInterface) return;
    // logind sends the values; a service that only invalidates them is asked.
    const auto value = [&](const QString &name) -> std::optional<bool> {
        if (changed.contains(name)) {
            QVariant v = changed.value(name);
            if (v.userType() == qMetaTypeId<QDBusVariant>()) v = v.value<QDBusVariant>().variant();
            if (v.typeId() == QMetaType::Bool) return v.toBool();
            return std::nullopt;
        }
        if (!invalidated.contains(name)) return std::nullopt;
        QDBusMessage message =
            QDBusMessage::createMethodCall(kLogindService, session, kPropertiesInterface, QStringLiteral("Get"));
        message << kSessionInterface << name;
        const std::optional<QVariant> reply = call(systemBus, message);
        if (!reply) return std::nullopt;
        const QVariant v = reply->value<QDBusVariant>().variant();
        if (v.typeId() != QMetaType::Bool) return std::nullopt;
        return v.toBool();
    };
    if (const std::optional<bool> on = value(kLockedHint)) setLocked(*on);
    if (const std::optional<bool> on = value(kActive)) setActive(*on);
}

void LinuxSessionSignals::prepareForSleep(bool sleeping) { setAsleep(sleeping); }

void LinuxSessionSignals::setLocked(bool on)
{
    if (on == locked) return;
    locked = on;
    emit lockedChanged(on);
}

void LinuxSessionSignals::setAsleep(bool on)
{
    if (on == asleep) return;
    asleep = on;
    emit asleepChanged(on);
}

void LinuxSessionSignals::setActive(bool on)
{
    if (on == active) return;
    active = on;
    emit activeChanged(on);
}
