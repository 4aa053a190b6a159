#include "ui/SettingsWindow.h"

#include "ui/AboutTab.h"
#include "ui/DesktopTab.h"
#include "ui/GeneralTab.h"
#include "ui/MusicTab.h"
#include "ui/SceneTab.h"

#include <QTabWidget>
#include <QVBoxLayout>

SettingsWindow::SettingsWindow(const UiServices &services, QWidget *parent)
    : QWidget(parent, Qt::Window)
{
    setWindowTitle(tr("Turnelo Settings"));
    setObjectName(QStringLiteral("TurneloSettings"));
    auto *layout = new QVBoxLayout(this);
    tabWidget = new QTabWidget(this);
    tabWidget->addTab(new GeneralTab(services), tr("General"));
    tabWidget->addTab(new SceneTab(services), tr("Scene"));
    tabWidget->addTab(new MusicTab(services), tr("Music"));
    tabWidget->addTab(new DesktopTab(services), tr("Desktop"));
    tabWidget->addTab(new AboutTab(services), tr("About"));
    layout->addWidget(tabWidget);
    resize(520, 600);
}

QWidget *SettingsWindow::page(Tab tab) const { return tabWidget->widget(int(tab)); }

void SettingsWindow::show(std::optional<Tab> tab)
{
    if (tab) tabWidget->setCurrentIndex(int(*tab));
    QWidget::show();
    raise();
    activateWindow();
}
