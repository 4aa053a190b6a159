#pragma once

// The real program on a test's private display server and bus (both session and system), on the
// software Vulkan device, with its settings and log. Stopped with the object; its log shown on failure.

#include "TestSupport.h"

#include <QImage>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <cmath>
#include <gtest/gtest.h>
#include <iostream>
#include <optional>

class RoomProcess {
public:
    RoomProcess(QProcessEnvironment display, const QString &busAddress)
        : env(std::move(display))
    {
        for (const char *bus : {"DBUS_SESSION_BUS_ADDRESS", "DBUS_SYSTEM_BUS_ADDRESS"}) env.insert(bus, busAddress);
        env.insert("VK_ICD_FILENAMES", testsupport::lavapipeIcd());
        env.remove("QT_QPA_PLATFORM");  // the program picks its own
    }
    ~RoomProcess()
    {
        if (::testing::Test::HasFailure())
            std::cerr << "log:\n" << log().toStdString() << "\noutput:\n" << app.readAll().toStdString();
        app.terminate();
        if (!app.waitForFinished(10000)) app.kill();
    }

    static QString program() { return QStringLiteral(TURNELO_BINARY_DIR "/turnelo"); }

    // A small room (one framing at 640×360) generated in `folder`, which becomes the scenes folder.
    bool makeScene(const QString &folder)
    {
        const auto made = testsupport::runTool(
            testsupport::builtTool("turnelo-gen-scene"),
            {"--out", folder, "--width", "640", "--height", "360", "--framings", "wide"}, {}, 300000);
        EXPECT_EQ(made.exitCode, 0) << made.err.toStdString();
        env.insert("TURNELO_SCENES_DIR", folder);
        return made.exitCode == 0;
    }
    void set(const QString &key, const QString &type, const QString &value)
    {
        EXPECT_TRUE(defaults({"write", key, type, value}).has_value()) << key.toStdString();
    }
    // A setting as turnelo-defaults prints it; empty when it is not set.
    QByteArray setting(const QString &key) { return defaults({"read", key}).value_or(QByteArray()).trimmed(); }
    // Starts it as a user past the welcome, whose window would stand in front of the room.
    bool start(const QStringList &args = {"--music-setup-done"})
    {
        set("onboardingDone", "-bool", "true");
        app.setProcessEnvironment(env);
        app.setProcessChannelMode(QProcess::MergedChannels);
        app.start(program(), args);
        return app.waitForStarted(10000);
    }

    QString log() const
    {
        return QString::fromUtf8(testsupport::readFile(env.value("XDG_STATE_HOME") + "/Turnelo Dev.log"));
    }
    // Waits for `line` after `from` characters of the log; its end offset, or `from` and a failure.
    qsizetype waitForLine(const QString &line, qsizetype from = 0, int seconds = 60) const
    {
        qsizetype at = -1;
        // A line never comes once the program has ended.
        testsupport::waitUntil(
            [&] { return (at = log().indexOf(line, from)) >= 0 || app.state() != QProcess::Running; },
            std::chrono::seconds(seconds));
        if (at < 0)
            ADD_FAILURE() << "no line \"" << line.toStdString() << "\"; log:\n" << log().mid(from).toStdString();
        return at < 0 ? from : at + line.size();
    }
    // Whether a performance line with frames comes after `from`.
    bool animatesAfter(qsizetype from, int seconds = 90) const
    {
        static const QRegularExpression moving("Perf \\d+s: [1-9][0-9.]* fps");
        return testsupport::waitUntil([&] { return moving.match(log(), from).hasMatch(); },
                                      std::chrono::seconds(seconds));
    }
    // The frames per second of a whole performance interval after `from`.
    double fpsOfAWholeIntervalAfter(qsizetype from) const
    {
        static const QRegularExpression perf("Perf \\d+s: ([0-9.]+) fps");
        // The next line may count frames from before `from`; the one after it cannot.
        const qsizetype next = waitForLine("Perf", waitForLine("Perf", from));
        QRegularExpressionMatch m;
        testsupport::waitUntil([&] { return (m = perf.match(log(), next)).hasMatch(); }, std::chrono::seconds(30));
        EXPECT_TRUE(m.hasMatch()) << "no performance line";
        return m.hasMatch() ? m.captured(1).toDouble() : -1;
    }

    QProcessEnvironment env;
    QProcess app;

private:
    // What turnelo-defaults printed; none when it failed.
    std::optional<QByteArray> defaults(const QStringList &args)
    {
        QProcess tool;
        tool.setProcessEnvironment(env);
        tool.start(testsupport::builtTool("turnelo-defaults"), args);
        if (!tool.waitForFinished(30000) || tool.exitCode() != 0) return std::nullopt;
        return tool.readAllStandardOutput();
    }
};

// The mean and spread of the grey level over `r`, every fourth pixel: a flat colour has no spread.
inline std::pair<double, double> greyLevels(const QImage &image, const QRect &r)
{
    double sum = 0, sum2 = 0;
    int n = 0;
    for (int y = r.top(); y <= r.bottom(); y += 4)
        for (int x = r.left(); x <= r.right(); x += 4, ++n) {
            const double v = qGray(image.pixel(x, y));
            sum += v;
            sum2 += v * v;
        }
    const double mean = n ? sum / n : 0;
    return {mean, n ? std::sqrt(std::max(0.0, sum2 / n - mean * mean)) : 0.0};
}
