#include "core/environment/MacDesktopLayout.h"

const DesktopPreferences::Layout &macDesktopLayout()
{
    using Control = DesktopPreferences::Control;
    static const QString finder = QStringLiteral("com.apple.finder");
    static const QString windowManager = QStringLiteral("com.apple.WindowManager");
    static const DesktopPreferences::Layout layout{
        {
            {finder, QStringLiteral("CreateDesktop"), Control::hideIcons, false, true, true},
            {windowManager, QStringLiteral("StandardHideDesktopIcons"), Control::hideIcons, true, false, false},
            {windowManager, QStringLiteral("StandardHideWidgets"), Control::hideWidgets, true, false, false},
            {windowManager, QStringLiteral("EnableStandardClickToShowDesktop"), Control::clickOnlyInStageManager, false,
             true, true},
        },
        {
            {finder, QStringLiteral("/usr/bin/killall"), {QStringLiteral("Finder")}},
            {windowManager, QStringLiteral("/usr/bin/killall"), {QStringLiteral("WindowManager")}},
        },
    };
    return layout;
}
