#include "app/TrayIcon.h"

#include "ui/AppIcon.h"

#include <QActionGroup>
#include <QMenu>

TrayIcon::TrayIcon(Actions a, QObject *parent)
    : QObject(parent)
    , actions(std::move(a))
{
    contextMenu = std::make_unique<QMenu>();
    showRoom = contextMenu->addAction(QStringLiteral("Show the turntable on the desktop"));
    showRoom->setCheckable(true);
    connect(showRoom, &QAction::toggled, this, [this](bool on) {
        if (actions.setRoomShown && on != actions.roomShown()) actions.setRoomShown(on);
    });
    contextMenu->addSeparator();
    auto *displays = new QActionGroup(contextMenu.get());
    mainDisplay = contextMenu->addAction(QStringLiteral("Main display"));
    allDisplays = contextMenu->addAction(QStringLiteral("All displays"));
    for (QAction *action : {mainDisplay, allDisplays}) {
        action->setCheckable(true);
        displays->addAction(action);
    }
    connect(allDisplays, &QAction::triggered, this, [this] {
        if (actions.setAllDisplays) actions.setAllDisplays(true);
    });
    connect(mainDisplay, &QAction::triggered, this, [this] {
        if (actions.setAllDisplays) actions.setAllDisplays(false);
    });
    contextMenu->addSeparator();
    connect(contextMenu->addAction(QStringLiteral("Reload scene")), &QAction::triggered, this, [this] {
        if (actions.reload) actions.reload();
    });
    connect(contextMenu->addAction(QStringLiteral("Open log")), &QAction::triggered, this, [this] {
        if (actions.openLog) actions.openLog();
    });
    contextMenu->addSeparator();
    connect(contextMenu->addAction(QStringLiteral("Quit Turnelo")), &QAction::triggered, this, [this] {
        if (actions.quit) actions.quit();
    });
    connect(contextMenu.get(), &QMenu::aboutToShow, this, &TrayIcon::refresh);
    refresh();

    tray.setIcon(makeIcon());
    tray.setToolTip(QStringLiteral("Turnelo"));
    tray.setContextMenu(contextMenu.get());
    connect(&tray, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason != QSystemTrayIcon::Trigger) return;
        if (actions.open)
            actions.open(tray.geometry());
        else
            contextMenu->popup(QCursor::pos());
    });
}

TrayIcon::~TrayIcon() { tray.hide(); }

void TrayIcon::setVisible(bool visible) { tray.setVisible(visible); }

void TrayIcon::refresh()
{
    const QSignalBlocker block(showRoom);
    showRoom->setChecked(actions.roomShown && actions.roomShown());
    const bool all = actions.allDisplays && actions.allDisplays();
    allDisplays->setChecked(all);
    mainDisplay->setChecked(!all);
}

QIcon TrayIcon::makeIcon() { return AppIcon::icon(); }
