#pragma once

#include "core/environment/DesktopPreferences.h"
#include "platform/linux/PreferenceTool.h"

// Xfce: xfdesktop draws the desktop icons after the xfconf channel "xfce4-desktop"; the icon
// style 0 shows none. Read and written through xfconf-query on the session bus, so xfconfd
// itself keeps the store; xfdesktop is told to reload after a change. Xfce has no widgets and
// no click-to-show-desktop, so only hideIcons has a setting.
class XfconfDesktopPreferences : public DesktopPreferences {
public:
    XfconfDesktopPreferences();

    static const QString channel;

    // Whether xfconf-query is installed.
    bool usable() const { return tool.found(); }

    const Layout &layout() const override;
    std::optional<QVariant> read(const Setting &setting) override;
    void write(const Setting &setting, const QVariant &value) override;
    void remove(const Setting &setting) override;

private:
    PreferenceTool tool;
};
