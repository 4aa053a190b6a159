#include "platform/linux/LinuxDesktopPreferences.h"

#include "platform/linux/GSettingsDesktopPreferences.h"
#include "platform/linux/XfconfDesktopPreferences.h"

std::unique_ptr<DesktopPreferences> linuxDesktopPreferences(const QString &currentDesktop)
{
    const QStringList names = currentDesktop.toUpper().split(QLatin1Char(':'), Qt::SkipEmptyParts);
    if (names.contains(QLatin1String("XFCE"))) {
        auto xfce = std::make_unique<XfconfDesktopPreferences>();
        if (xfce->usable()) return xfce;
    }
    if (names.contains(QLatin1String("GNOME"))) {
        auto gnome = std::make_unique<GSettingsDesktopPreferences>();
        if (gnome->usable()) return gnome;
        const QString own = GSettingsDesktopPreferences::extensionSchemaDirectory();
        if (!own.isEmpty()) {
            gnome = std::make_unique<GSettingsDesktopPreferences>(own);
            if (gnome->usable()) return gnome;
        }
    }
    return nullptr;
}

std::unique_ptr<DesktopPreferences> linuxDesktopPreferences()
{
    return linuxDesktopPreferences(qEnvironmentVariable("XDG_CURRENT_DESKTOP"));
}
