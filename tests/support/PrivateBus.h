#pragma once

// A dbus-daemon of the test's own, and system services on it played by python3-dbusmock.
// One private bus can stand in for both the session and the system bus: code under test takes
// the connection, and child processes get both addresses from env().

#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDir>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <chrono>
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
        const QString config = dir.filePath("bus.conf");
        writeFile(config,
                  QStringLiteral("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                                 " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                                 "<busconfig>\n"
                                 "  <type>session</type>\n"
                                 "  <listen>unix:path=%1</listen>\n"
                                 "  <auth>EXTERNAL</auth>\n"
                                 "  <servicedir>%2</servicedir>\n"
                                 "  <policy context=\"default\">\n"
                                 "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
                                 "    <allow eavesdrop=\"true\"/>\n"
                                 "    <allow own=\"*\"/>\n"
                                 "  </policy>\n"
                                 "</busconfig>\n")
                      .arg(dir.filePath("bus"), serviceDir())
                      .toUtf8());
        daemon.start("dbus-daemon", {"--config-file=" + config, "--nofork", "--print-address=1"});
        if (!daemon.waitForStarted(10000) || !daemon.waitForReadyRead(10000)) return;
        address = QString::fromUtf8(daemon.readLine()).trimmed();
        name = QStringLiteral("private-bus-%1").arg(++counter);
        connection = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(address, name));
    }
    ~PrivateBus()
    {
        connection.reset();
        QDBusConnection::disconnectFromBus(name);
        daemon.terminate();
        if (!daemon.waitForFinished(5000)) {
            daemon.kill();
            daemon.waitForFinished();
        }
    }

    bool ok() const { return connection && connection->isConnected(); }
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
        e.insert("DBUS_SESSION_BUS_ADDRESS", address);
        e.insert("DBUS_SYSTEM_BUS_ADDRESS", address);
        return e;
    }
    bool hasOwner(const QString &busName) { return bus().interface()->isServiceRegistered(busName).value(); }

    QTemporaryDir dir;
    QProcess daemon;
    QString address;
    QString name;
    std::unique_ptr<QDBusConnection> connection;
    static inline int counter = 0;
};

// A service played by python3-dbusmock (the system python's) on a private bus: from one of its
// templates, or a bare object that the test fills through the mock interface. Stopped with
// the object.
class DbusMock {
public:
    // `python3 -m dbusmock --template <name> [-p <parameters>]`; `busName` is the name the
    // template claims, waited for.
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

    ~DbusMock()
    {
        process.terminate();
        if (!process.waitForFinished(5000)) {
            process.kill();
            process.waitForFinished();
        }
    }

    // Whether the service owns its name on the bus.
    bool ok() const { return ready; }
    QString errors() { return QString::fromUtf8(process.readAllStandardError()); }

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
        const QStringList module{"-m", "dbusmock", "--session"};
        process.start("/usr/bin/python3", module + args);
        ready = process.waitForStarted(10000) &&
                waitUntil([&] { return bus.hasOwner(busName) || process.state() == QProcess::NotRunning; },
                          std::chrono::seconds(30)) &&
                process.state() == QProcess::Running;
    }

    PrivateBus &bus;
    QProcess process;
    bool ready = false;
};

}  // namespace testsupport
