#pragma once

#include "ui/UiServices.h"

#include <QWidget>

// The settings window's Desktop tab. Main thread.
class DesktopTab : public QWidget {
    Q_OBJECT
public:
    explicit DesktopTab(const UiServices &services, QWidget *parent = nullptr);

    // Asks before the desktop restarts ("clear the desk" the first time, "apply" later), then
    // applies. Returns whether it applied. Shared with the onboarding's desktop step.
    static bool confirmAndApply(QWidget *parent, const UiServices &services, bool hideIcons, bool hideWidgets,
                                bool clickOnlyInStageManager);

protected:
    void showEvent(QShowEvent *event) override;

private:
    void refresh();

    UiServices s;
    class QCheckBox *icons = nullptr;
    class QCheckBox *widgets = nullptr;
    class QCheckBox *click = nullptr;
    class QPushButton *apply = nullptr;
    class QPushButton *restore = nullptr;
};
