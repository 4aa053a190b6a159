#include "platform/linux/LinuxDesktopPreferences.h"

#include "platform/linux/GSettingsDesktopPreferences.h"
#include "platform/linux/XfconfDesktopPreferences.h"

#include <QCoreApplication>

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

QString linuxDesktopCleanerNote(const QString &currentDesktop)
{
    if (!currentDesktop.toUpper().split(QLatin1Char(':'), Qt::SkipEmptyParts).contains(QLatin1String("KDE"))) return {};
    // Plasma's Folder View has no switch for its icons: the only way is another desktop layout.
    return QCoreApplication::translate(
        "DesktopCleaner",
        "Plasma keeps the desktop icons in its Folder View, which Turnelo cannot hide. While the room "
        "shows, it lies over Plasma’s desktop and covers its icons and widgets; the panel stays on top. "
        "To take the icons off the desk, right-click the desktop, choose “Configure Desktop and "
        "Wallpaper…” and set Layout to “Desktop”.");
}

QString linuxDesktopCleanerNote() { return linuxDesktopCleanerNote(qEnvironmentVariable("XDG_CURRENT_DESKTOP")); }
