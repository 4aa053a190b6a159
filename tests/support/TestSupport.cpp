#include "TestSupport.h"

#include "core/app/Log.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QThread>

namespace testsupport {

bool waitUntil(const std::function<bool()> &done, std::chrono::milliseconds timeout)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeout.count()) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(2);
    }
    return true;
}

void spin(std::chrono::milliseconds span)
{
    waitUntil([] { return false; }, span);
}

QByteArray readFile(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) return {};
    return f.readAll();
}

void writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile f(path);
    if (f.open(QIODevice::WriteOnly | QIODevice::Truncate)) f.write(bytes);
}

QImage solidImage(const QColor &color, int width, int height)
{
    QImage image(width, height, QImage::Format_RGB32);
    image.fill(color);
    return image;
}

QString builtTool(const QString &name) { return QStringLiteral(TURNELO_BINARY_DIR) + QStringLiteral("/tools/") + name; }

QString installDesktopIconsSchema(const QString &dataHome)
{
    const QString schemas = dataHome + QStringLiteral("/gnome-shell/extensions/ding@rastersoft.com/schemas");
    writeFile(schemas + QStringLiteral("/org.gnome.shell.extensions.ding.gschema.xml"), R"(<schemalist>
  <schema id="org.gnome.shell.extensions.ding" path="/org/gnome/shell/extensions/ding/">
    <key type="b" name="show-home"><default>true</default></key>
    <key type="b" name="show-trash"><default>true</default></key>
    <key type="b" name="show-volumes"><default>true</default></key>
    <key type="b" name="show-network-volumes"><default>false</default></key>
  </schema>
</schemalist>
)");
    return runTool(QStringLiteral("glib-compile-schemas"), {schemas}).exitCode == 0 ? schemas : QString();
}

ToolResult runTool(const QString &program, const QStringList &args, const QStringList &extraEnv, int timeoutMs)
{
    QProcess process;
    if (!extraEnv.isEmpty()) {
        QStringList env = QProcess::systemEnvironment();
        env += extraEnv;
        process.setEnvironment(env);
    }
    process.start(program, args);
    ToolResult result;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        result.err = "timed out";
        return result;
    }
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    return result;
}

QByteArray minimalManifest()
{
    return R"({
  "contract": 1,
  "sun_keys": ["noon"],
  "groups": ["room"],
  "presets": {
    "manha": {"room": 0.6}, "dia": {"room": 1.0}, "tarde": {"room": 0.8}, "noite": {"room": 0.2}
  },
  "clock": [["06:00", "manha"], ["10:00", "dia"], ["15:00", "tarde"], ["19:30", "noite"]],
  "framings": {
    "mid": {
      "size": [64, 48],
      "camera": {"P": [[1, 0, 0, 0], [0, 1, 0, 0], [0, 0, 0, 1]]},
      "cover": {"corners": [[1, 1], [9, 1], [9, 9], [1, 9]], "mask": "masks/cover.png"},
      "label": {"corners": [[20, 20], [24, 20], [24, 24], [20, 24]], "mask": "masks/label.png"}
    }
  }
})";
}

LogTail::LogTail()
{
    static QTemporaryDir state;
    static const bool chosen = qputenv("XDG_STATE_HOME", state.path().toUtf8());
    (void)chosen;
    start = readFile(Log::path()).size();
}

QStringList LogTail::lines() const
{
    return QString::fromUtf8(readFile(Log::path()).mid(start)).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QStringList LogTail::messages() const
{
    QStringList out;
    for (const QString &line : lines()) out << line.section(QLatin1Char(' '), 1);
    return out;
}

QString LogTail::last() const
{
    const QStringList all = lines();
    return all.isEmpty() ? QString() : all.last();
}

ScopedEnv::ScopedEnv(const char *name, const QByteArray &value)
    : name(name)
    , old(qgetenv(name))
    , had(qEnvironmentVariableIsSet(name))
{
    qputenv(name, value);
}

ScopedEnv::~ScopedEnv()
{
    if (had)
        qputenv(name, old);
    else
        qunsetenv(name);
}

QString lavapipeIcd()
{
    for (const char *dir : {"/usr/share/vulkan/icd.d", "/etc/vulkan/icd.d"}) {
        const QFileInfoList found = QDir(dir).entryInfoList({"lvp_icd*.json"}, QDir::Files);
        if (!found.isEmpty()) return found.first().absoluteFilePath();
    }
    return {};
}

}  // namespace testsupport
