#include "platform/linux/XdgAutostart.h"

#include "core/app/AppIdentity.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSettings>

namespace XdgAutostart {

QString entryPath()
{
    return AppIdentity::xdgFolder("XDG_CONFIG_HOME", QStringLiteral("/.config")) +
           QStringLiteral("/autostart/turnelo.desktop");
}

bool isEnabled()
{
    const QString file = entryPath();
    if (!QFile::exists(file)) return false;
    QSettings entry(file, QSettings::IniFormat);
    return entry.value(QStringLiteral("Desktop Entry/Hidden")).toString() != QStringLiteral("true");
}

bool setEnabled(bool on, const QString &program)
{
    const QString file = entryPath();
    if (!on) return !QFile::exists(file) || QFile::remove(file);
    QDir().mkpath(QFileInfo(file).absolutePath());
    // Exec takes its arguments split at blanks: a path with one is quoted.
    QString exec = program;
    if (exec.contains(QLatin1Char(' '))) exec = QLatin1Char('"') + exec + QLatin1Char('"');
    QSaveFile out(file);
    if (!out.open(QIODevice::WriteOnly)) return false;
    out.write(QStringLiteral("[Desktop Entry]\n"
                             "Type=Application\n"
                             "Name=Turnelo\n"
                             "Comment=A room with a record player on the desktop\n"
                             "Exec=%1\n"
                             "Icon=turnelo\n"
                             "Terminal=false\n"
                             "X-GNOME-Autostart-enabled=true\n")
                  .arg(exec)
                  .toUtf8());
    return out.commit();
}

QString word() { return isEnabled() ? QStringLiteral("ativo") : QStringLiteral("desligado"); }

}  // namespace XdgAutostart
