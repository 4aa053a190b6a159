#pragma once

#include "core/environment/ProcessLauncher.h"

#include <QByteArray>
#include <QColor>
#include <QImage>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <chrono>
#include <functional>
#include <ostream>

// QStrings in assertion failures read as text, not as bytes.
inline void PrintTo(const QString &s, std::ostream *os) { *os << '"' << s.toStdString() << '"'; }

namespace testsupport {

// Runs the event loop until `done` holds or `timeout` passes; returns whether it held.
bool waitUntil(const std::function<bool()> &done, std::chrono::milliseconds timeout);

// Runs the event loop for `span`.
void spin(std::chrono::milliseconds span);

QByteArray readFile(const QString &path);
void writeFile(const QString &path, const QByteArray &bytes);

// An RGB32 image of one colour.
QImage solidImage(const QColor &color, int width = 32, int height = 32);

// A built executable of this project, by target name.
QString builtTool(const QString &name);

struct ToolResult {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};
ToolResult runTool(const QString &program, const QStringList &args, const QStringList &extraEnv = {},
                   int timeoutMs = 120000);

// The ICD file of Mesa's software Vulkan device (lavapipe); empty when it is not installed.
QString lavapipeIcd();

// A small valid manifest.json: presets manha/dia/tarde/noite on one "room" group, a clock, and
// one framing "mid" of 64×48 with only the required sections.
QByteArray minimalManifest();

// What the application log received since the object was made. The log's folder is fixed at its
// first use in a process: the first LogTail points XDG_STATE_HOME at a private folder, so make
// one before anything logs.
class LogTail {
public:
    LogTail();
    QStringList lines() const;
    // The lines without their timestamps.
    QStringList messages() const;
    QString last() const;

private:
    qint64 start;
};

// Sets an environment variable for the life of the object, restoring the old value after.
class ScopedEnv {
public:
    ScopedEnv(const char *name, const QByteArray &value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    const char *name;
    QByteArray old;
    bool had;
};

// GNOME's Desktop Icons extension schema ("org.gnome.shell.extensions.ding"), installed and
// compiled under `dataHome` the way GNOME Shell extensions keep theirs per user; gives its
// folder for gsettings --schemadir, or an empty string when it could not be compiled.
QString installDesktopIconsSchema(const QString &dataHome);

// Records the commands the desktop cleaner would run instead of restarting real desktop processes.
struct RecordingLauncher : ProcessLauncher {
    QStringList commands;
    std::optional<QString> run(const QString &program, const QStringList &arguments) override
    {
        commands.append((QStringList{program} + arguments).join(' '));
        return std::nullopt;
    }
};

}  // namespace testsupport
