#pragma once

#include "ui/UiServices.h"

#include <QWidget>
#include <optional>

class QTabWidget;

// The settings window: General, Scene, Music, Desktop and About. Built when first shown and
// kept; every control writes its key when changed and follows the key when it changes
// elsewhere. Main thread.
class SettingsWindow : public QWidget {
    Q_OBJECT
public:
    enum class Tab { general, scene, music, desktop, about };

    explicit SettingsWindow(const UiServices &services, QWidget *parent = nullptr);

    // Shows the window in front at `tab`, or at the tab it last showed.
    void show(std::optional<Tab> tab = std::nullopt);
    QTabWidget *tabs() const { return tabWidget; }
    QWidget *page(Tab tab) const;

private:
    QTabWidget *tabWidget = nullptr;
};
