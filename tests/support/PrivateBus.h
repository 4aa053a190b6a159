#pragma once

// A dbus-daemon of the test's own, standing in for both the session and the system bus, and system
// services on it played by python3-dbusmock.

#include "ServerProcess.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDir>
#include <QProcessEnvironment>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <memory>

namespace testsupport {

// For ASSERT_TRUE/EXPECT_TRUE: a method reply, or a failure carrying the error.
inline ::testing::AssertionResult isReply(const QDBusMessage &message)
{
    if (message.type() == QDBusMessage::ReplyMessage) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << message.errorName().toStdString() << ": "
                                         << message.errorMessage().toStdString();
}

class PrivateBus {
public:
    PrivateBus()
    {
        QDir().mkpath(serviceDir());
        const QString config = dir.filePath("bus.conf"),
                      text = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>session</type><listen>unix:path=%1</listen><auth>EXTERNAL</auth><servicedir>%2</servicedir>
  <policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/>
  </policy></busconfig>
)";
        writeFile(config, text.arg(dir.filePath("bus"), serviceDir()).toUtf8());
        // The address comes on standard output, the rest in the log.
        daemon.launch("dbus-daemon", {"--config-file=" + config, "--nofork", "--print-address=1"},
                      dir.filePath("bus.log"), true);
        if (!daemon.waitReady("dbus-daemon", std::chrono::seconds(20), why, [&] {
                return daemon.canReadLine() || (daemon.waitForReadyRead(200) && daemon.canReadLine());
            }))
            return;
        address = QString::fromUtf8(daemon.readLine()).trimmed();
        name = QStringLiteral("private-bus-%1").arg(++counter);
        connection = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(address, name));
    }
    ~PrivateBus()
    {
        connection.reset();
        QDBusConnection::disconnectFromBus(name);
    }

    // Connected, or a failure saying why.
    ::testing::AssertionResult ok() const
    {
        if (connection && connection->isConnected()) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << (why.isEmpty() ? "no connection to " + address : why).toStdString();
    }
    // Activatable services: "<name>.service" files here start on the first message to the name.
    QString serviceDir() const { return dir.filePath("services"); }
    // The test's own connection.
    QDBusConnection &bus() { return *connection; }
    // A further connection of its own, as a second process would have.
    QDBusConnection connect(const QString &suffix)
    {
        return QDBusConnection::connectToBus(address, name + QLatin1Char('-') + suffix);
    }
    // This environment with the bus as both the session and the system bus.
    QProcessEnvironment env() const
    {
        QProcessEnvironment e = QProcessEnvironment::systemEnvironment();
        for (const char *bus : {"DBUS_SESSION_BUS_ADDRESS", "DBUS_SYSTEM_BUS_ADDRESS"}) e.insert(bus, address);
        return e;
    }
    bool hasOwner(const QString &busName) { return bus().interface()->isServiceRegistered(busName).value(); }

    QTemporaryDir dir;
    ServerProcess daemon;
    QString address, name, why;
    std::unique_ptr<QDBusConnection> connection;
    static inline int counter = 0;
};

// A service played by python3-dbusmock on a private bus, from a template or a bare object. Stopped with the object.
class DbusMock {
public:
    // `python3 -m dbusmock --template <name> [-p <parameters>]`, waited for until it owns `busName`.
    static std::unique_ptr<DbusMock> fromTemplate(PrivateBus &bus, const QString &templateName, const QString &busName,
                                                  const QString &parametersJson = {})
    {
        QStringList args{"--template", templateName};
        if (!parametersJson.isEmpty()) args << "-p" << parametersJson;
        return std::unique_ptr<DbusMock>(new DbusMock(bus, busName, args));
    }
    // `python3 -m dbusmock <busName> <path> <interface>`: one object, no methods or properties.
    static std::unique_ptr<DbusMock> bare(PrivateBus &bus, const QString &busName, const QString &path,
                                          const QString &interface)
    {
        return std::unique_ptr<DbusMock>(new DbusMock(bus, busName, {busName, path, interface}));
    }

    // Whether the service owns its name on the bus; if not, errors() says why.
    bool ok() const { return why.isEmpty(); }
    QString errors() const { return why; }

    // A method call on one of the service's objects; the reply, or the error as its text.
    QDBusMessage call(const QString &path, const QString &interface, const QString &method,
                      const QVariantList &args = {})
    {
        QDBusMessage message = QDBusMessage::createMethodCall(busName, path, interface, method);
        message.setArguments(args);
        return bus.bus().call(message, QDBus::Block, 10000);
    }
    QDBusMessage callMock(const QString &path, const QString &method, const QVariantList &args = {})
    {
        return call(path, "org.freedesktop.DBus.Mock", method, args);
    }
    // The standard Properties.Set, which the mock answers by emitting PropertiesChanged.
    QDBusMessage setProperty(const QString &path, const QString &interface, const QString &name, const QVariant &value)
    {
        return call(path, "org.freedesktop.DBus.Properties", "Set",
                    {interface, name, QVariant::fromValue(QDBusVariant(value))});
    }

    const QString busName;

private:
    DbusMock(PrivateBus &bus, const QString &busName, const QStringList &args)
        : busName(busName)
        , bus(bus)
    {
        process.setProcessEnvironment(bus.env());
        // Whatever the template says, the service goes on the private bus, which is both.
        process.launch("/usr/bin/python3", QStringList{"-m", "dbusmock", "--session"} + args,
                       bus.dir.filePath(QStringLiteral("mock-%1.log").arg(++mocks)));
        process.waitReady("dbusmock " + busName, std::chrono::seconds(30), why, [&] { return bus.hasOwner(busName); });
    }

    PrivateBus &bus;
    ServerProcess process;
    QString why;  // empty once it owns its name
    static inline int mocks = 0;
};

}  // namespace testsupport
