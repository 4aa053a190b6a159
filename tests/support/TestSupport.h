#pragma once

#include "core/environment/ProcessLauncher.h"

#include <QColor>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QImage>
#include <QStringList>
#include <QTemporaryDir>
#include <chrono>
#include <functional>
#include <map>
#include <ostream>

// QStrings and rectangles in assertion failures read as text, not as bytes.
inline void PrintTo(const QString &s, std::ostream *os) { *os << '"' << s.toStdString() << '"'; }
inline void PrintTo(const QRect &r, std::ostream *os)
{
    *os << r.width() << 'x' << r.height() << '+' << r.x() << '+' << r.y();
}
inline void PrintTo(const QSize &s, std::ostream *os) { *os << s.width() << 'x' << s.height(); }

namespace testsupport {

// Runs the event loop until `done` holds or `timeout` passes; returns whether it held.
bool waitUntil(const std::function<bool()> &done, std::chrono::milliseconds timeout);

// Runs the event loop for `span`.
inline void spin(std::chrono::milliseconds span)
{
    waitUntil([] { return false; }, span);
}

inline QByteArray readFile(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}
inline void writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate)) f.write(bytes);
}

// Every file under `dir`, hidden ones too, by its path relative to `dir`, with its contents.
inline std::map<QString, QByteArray> filesUnder(const QString &dir)
{
    std::map<QString, QByteArray> out;
    QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        out[QDir(dir).relativeFilePath(path)] = readFile(path);
    }
    return out;
}

// Σ f(x, y) over the pixels of `area`: a count when f answers yes or no.
template <typename F> inline double sumOver(const QRect &area, F f)
{
    double sum = 0;
    for (int y = area.top(); y <= area.bottom(); ++y)
        for (int x = area.left(); x <= area.right(); ++x) sum += f(x, y);
    return sum;
}

// An RGB32 image of one colour.
inline QImage solidImage(const QColor &color, int width = 32, int height = 32)
{
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(color);
    return image;
}

// A built executable of this project, by target name.
inline QString builtTool(const QString &name) { return QStringLiteral(TURNELO_BINARY_DIR "/tools/") + name; }

struct ToolResult {
    int exitCode = -1;
    QByteArray out, err;
};
ToolResult runTool(const QString &program, const QStringList &args, const QStringList &extraEnv = {},
                   int timeoutMs = 120000);

// The ICD file of Mesa's software Vulkan device (lavapipe); empty when it is not installed.
inline QString lavapipeIcd()
{
    for (const char *dir : {"/usr/share/vulkan/icd.d", "/etc/vulkan/icd.d"})
        for (const QFileInfo &found : QDir(dir).entryInfoList({"lvp_icd*.json"}, QDir::Files))
            return found.absoluteFilePath();
    return {};
}

// Puts Khronos' validation layer under every Vulkan instance of this process and its children,
// where the layer is installed and no layers were chosen: a misuse of the API stops the process
// with the layer's message (tests/support/vk_layer_settings.txt) instead of passing on a
// forgiving software driver.
void validateVulkan();

// A small valid manifest.json: presets manha/dia/tarde/noite on group "room", framing "mid" of 64×48.
QByteArray minimalManifest();

// The application log since the object was made; make one before anything logs (it sets XDG_STATE_HOME).
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
    ScopedEnv(const char *name, const QByteArray &value)
        : name(name)
        , old(qgetenv(name))
        , had(qEnvironmentVariableIsSet(name))
    {
        qputenv(name, value);
    }
    ~ScopedEnv() { had ? qputenv(name, old) : qunsetenv(name); }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    const char *name;
    QByteArray old;
    bool had;
};

// GNOME's Desktop Icons schema compiled under `dataHome`; its folder for gsettings --schemadir, or empty.
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
