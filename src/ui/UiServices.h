#pragma once

#include <QImage>
#include <QString>
#include <functional>

class DesktopCleaner;
class HistoryStore;
class MusicPermission;
class PlayerState;
class PowerMonitor;
class SceneInstaller;
class SceneStatus;
class Settings;

// What the windows reach through the application delegate: its shared objects and services
// (not owned; they outlive every window) and the delegate's own actions. Any member may be
// null or empty; a window then leaves out what needs it.
struct UiServices {
    Settings *settings = nullptr;
    PlayerState *state = nullptr;
    SceneStatus *status = nullptr;
    PowerMonitor *power = nullptr;
    SceneInstaller *installer = nullptr;
    HistoryStore *history = nullptr;
    MusicPermission *music = nullptr;
    DesktopCleaner *cleaner = nullptr;

    std::function<void(bool)> setShowTurntable;
    std::function<void(bool)> setScreens;  // true: all displays
    std::function<void()> reloadScene;
    std::function<void()> openLog;
    std::function<void()> quit;
    std::function<void()> showSettings;
    std::function<void(int step)> showOnboarding;  // 1…4
    std::function<bool()> launchAtLogin;
    std::function<bool(bool)> setLaunchAtLogin;  // false when it could not be changed
    // A small still of the installed room; null when there is none.
    std::function<QImage(QSize)> roomPicture;
    QString logPath;
};
