#pragma once

#include <QObject>
#include <QRect>
#include <QSystemTrayIcon>
#include <functional>
#include <memory>

class QAction;
class QMenu;

// The tray item (StatusNotifierItem where the desktop has one). A left click opens the popover
// at the icon; the right-click menu keeps the short list: show or hide the room, one display or
// all, reload the scene, open the log, quit. The menu reads its state each time it opens.
// Main thread.
class TrayIcon : public QObject {
    Q_OBJECT
public:
    struct Actions {
        std::function<bool()> roomShown;
        std::function<void(bool)> setRoomShown;
        std::function<bool()> allDisplays;
        std::function<void(bool)> setAllDisplays;
        std::function<void()> reload;
        std::function<void()> openLog;
        std::function<void()> quit;
        // A left click; the icon's rectangle on the screen, empty where the tray gives none.
        std::function<void(const QRect &)> open;
    };

    explicit TrayIcon(Actions actions, QObject *parent = nullptr);
    ~TrayIcon() override;

    void setVisible(bool visible);
    // Turnelo's icon at every size the theme asks for.
    static QIcon makeIcon();

private:
    void refresh();

    Actions actions;
    std::unique_ptr<QMenu> contextMenu;
    QSystemTrayIcon tray;
    QAction *showRoom = nullptr;
    QAction *mainDisplay = nullptr;
    QAction *allDisplays = nullptr;
};
