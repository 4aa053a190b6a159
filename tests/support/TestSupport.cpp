#include "TestSupport.h"

#include "core/app/Log.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QThread>

namespace testsupport {

bool waitUntil(const std::function<bool()> &done, std::chrono::milliseconds timeout)
{
    QElapsedTimer timer;
    timer.start();
    for (; !done(); QThread::msleep(2)) {
        if (timer.elapsed() > timeout.count()) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}

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

void validateVulkan()
{
    if (qEnvironmentVariableIsSet("VK_INSTANCE_LAYERS")) return;
    for (const char *dir : {"/usr/share/vulkan/explicit_layer.d", "/etc/vulkan/explicit_layer.d"})
        if (QFileInfo::exists(QString::fromLatin1(dir) + "/VkLayer_khronos_validation.json")) {
            qputenv("VK_INSTANCE_LAYERS", "VK_LAYER_KHRONOS_validation");
            qputenv("VK_LAYER_SETTINGS_PATH", TURNELO_SOURCE_DIR "/tests/support/vk_layer_settings.txt");
            return;
        }
}

ToolResult runTool(const QString &program, const QStringList &args, const QStringList &extraEnv, int timeoutMs)
{
    QProcess process;
    if (!extraEnv.isEmpty()) process.setEnvironment(QProcess::systemEnvironment() + extraEnv);
    process.start(program, args);
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        return {-1, {}, "timed out"};
    }
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1, process.readAllStandardOutput(),
            process.readAllStandardError()};
}

QByteArray minimalManifest()
{
    return R"({"contract": 1, "sun_keys": ["noon"], "groups": ["room"],
  "presets": {"manha": {"room": 0.6}, "dia": {"room": 1.0}, "tarde": {"room": 0.8}, "noite": {"room": 0.2}},
  "clock": [["06:00", "manha"], ["10:00", "dia"], ["15:00", "tarde"], ["19:30", "noite"]],
  "framings": {"mid": {"size": [64, 48], "camera": {"P": [[1, 0, 0, 0], [0, 1, 0, 0], [0, 0, 0, 1]]},
    "cover": {"corners": [[1, 1], [9, 1], [9, 9], [1, 9]], "mask": "masks/cover.png"},
    "label": {"corners": [[20, 20], [24, 20], [24, 24], [20, 24]], "mask": "masks/label.png"}}}})";
}

LogTail::LogTail()
{
    static QTemporaryDir state;
    [[maybe_unused]] static const bool chosen = qputenv("XDG_STATE_HOME", state.path().toUtf8());
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

}  // namespace testsupport
