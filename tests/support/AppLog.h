#pragma once

// The log of a running turnelo that a test started: waiting for its lines and reading its
// performance lines. The process is only watched (a line never comes once it has ended).

#include "TestSupport.h"

#include <QProcess>
#include <QRegularExpression>
#include <QString>
#include <gtest/gtest.h>

class AppLog {
public:
    AppLog(QString stateHome, const QProcess &app)
        : path(stateHome + QStringLiteral("/Turnelo Dev.log"))
        , app(app)
    {
    }

    QString text() const { return QString::fromUtf8(testsupport::readFile(path)); }

    // Waits for a line holding `text` after `from` characters of the log; its end offset (or
    // `from`, with a test failure, when it never came).
    qsizetype waitForLine(const QString &line, qsizetype from = 0, int seconds = 60) const
    {
        qsizetype at = -1;
        testsupport::waitUntil(
            [&] {
                at = text().indexOf(line, from);
                return at >= 0 || app.state() != QProcess::Running;
            },
            std::chrono::seconds(seconds));
        if (at < 0)
            ADD_FAILURE() << "no line \"" << line.toStdString() << "\"; log:\n" << text().mid(from).toStdString();
        return at < 0 ? from : at + line.size();
    }

    // The frames per second of the first performance line that starts after `from`.
    double fpsAfter(qsizetype from) const
    {
        static const QRegularExpression perf(QStringLiteral("Perf \\d+s: ([0-9.]+) fps"));
        QRegularExpressionMatch m;
        testsupport::waitUntil([&] { return (m = perf.match(text(), from)).hasMatch(); }, std::chrono::seconds(30));
        EXPECT_TRUE(m.hasMatch()) << "no performance line";
        return m.hasMatch() ? m.captured(1).toDouble() : -1;
    }

private:
    QString path;
    const QProcess &app;
};
