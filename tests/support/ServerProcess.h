#pragma once

// A test's child server: its output in a log file, waited on until ready, stopped with the object.
// Header-only, for the benchmarks.

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QProcess>
#include <QThread>
#include <chrono>
#include <functional>

class ServerProcess : public QProcess {
public:
    ~ServerProcess() override { stop(); }

    // Starts `program` with its output in `logFile`; with `readOutput`, only its standard error.
    void launch(const QString &program, const QStringList &arguments, const QString &logFile, bool readOutput = false)
    {
        setObjectName(logFile);
        setProcessChannelMode(readOutput ? SeparateChannels : MergedChannels);
        readOutput ? setStandardErrorFile(logFile) : setStandardOutputFile(logFile);
        start(program, arguments);
    }
    // What a process started by launch() has logged so far.
    static QByteArray log(const QProcess &process)
    {
        QFile file(process.objectName());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    QByteArray log() const { return log(*this); }

    // Whether `ready` holds within `timeout` while it runs; if not, `why` names it and quotes its log.
    bool waitReady(const QString &name, std::chrono::milliseconds timeout, QString &why,
                   const std::function<bool()> &ready)
    {
        if (poll([&] { return ready() || state() == NotRunning; }, timeout) && state() != NotRunning) return true;
        why = name + " did not start: " + (error() == FailedToStart ? errorString() : QString::fromUtf8(log()));
        return false;
    }
    // Calls `done` every 50 ms, handling events in between, for up to `timeout`; whether it held.
    static bool poll(const std::function<bool()> &done, std::chrono::milliseconds timeout)
    {
        const QDeadlineTimer deadline(timeout);
        for (; !done(); QThread::msleep(50)) {
            if (deadline.hasExpired()) return false;
            QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        }
        return true;
    }
    // Asks a process to end, then kills it.
    static void stop(QProcess &process)
    {
        if (process.state() == NotRunning) return;
        process.terminate();
        if (!process.waitForFinished(5000)) process.kill();
        process.waitForFinished(5000);
    }
    void stop() { stop(*this); }
};
