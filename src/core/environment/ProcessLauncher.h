#pragma once

#include <QString>
#include <QStringList>
#include <optional>

// Runs a system tool to its end. The seam lets callers be tested without restarting a real
// desktop process.
class ProcessLauncher {
public:
    virtual ~ProcessLauncher() = default;
    // Blocks until the tool exits; its output is discarded and its exit status ignored.
    // Returns the reason when the tool could not be started.
    virtual std::optional<QString> run(const QString &program, const QStringList &arguments) = 0;
};

// The real thing: QProcess, with standard output and error sent to the null device.
class SystemProcessLauncher : public ProcessLauncher {
public:
    std::optional<QString> run(const QString &program, const QStringList &arguments) override;
};
