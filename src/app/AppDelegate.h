#pragma once

#include "core/app/WindowSystemChoice.h"
#include "ui/UiServices.h"

#include <QObject>
#include <QString>
#include <memory>

class DesktopCleaner;
class DesktopPresence;
class HistoryStore;
class MprisPlayerBackend;
class MusicPermission;
class NowPlayingMonitor;
class OnboardingWindow;
class PlayerState;
class PopoverWindow;
class PowerMonitor;
class PowerSource;
class SceneInstaller;
class SceneStatus;
class SessionSignals;
class Settings;
class SettingsWindow;
class SystemProcessLauncher;
class SingleInstance;
class TrayIcon;
class WeatherService;
class WaylandConnection;
class WindowList;
class X11DesktopStacking;

// Owns every long-lived service of the process and wires them at launch: shared state first,
// then the desktop windows, the scene watcher, the installer, the player monitor, the weather
// and the tray. Nothing is done at quit: each service saves what it owns when it changes.
// Main thread; one per process.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    struct Options {
        bool markMusicSetupDone = false;  // scripted starts skip the music step of the onboarding
        // Where the room goes; Qt's own windows are already on that window system.
        WindowSystemChoice::Kind windowSystem = WindowSystemChoice::Kind::x11;
    };

    explicit AppDelegate(Options options, QObject *parent = nullptr);
    ~AppDelegate() override;

    // The launch sequence.
    void start();
    // Stores the choice and shows or hides the room.
    void setShowTurntable(bool on);
    // Stores "all" or "main" and rebuilds the windows.
    void setScreens(bool all);
    // Another start of the program knocked: bring the room back and show the settings, the way
    // to reach Turnelo when its tray icon is hidden.
    void reopen();
    // The start-up line.
    static QString startupLine(const QString &version, const QString &path, const QString &language,
                               const QString &autostart, int screens);

    SceneInstaller &scenes();
    // The windows, built when first asked for.
    PopoverWindow &popover();
    SettingsWindow &settings();
    OnboardingWindow &onboarding();
    // What the windows reach; valid after start().
    UiServices uiServices();
    PlayerState &playerState() { return *state; }
    NowPlayingMonitor *nowPlaying() { return monitor.get(); }

private:
    void recordHistory();
    QImage roomPicture(QSize size);
    // The room's surfaces for the chosen window system; none where the desktop allows none.
    std::unique_ptr<DesktopPresence> makeDesktop();

    Options options;
    std::unique_ptr<Settings> settingsStore;
    std::unique_ptr<PlayerState> state;
    std::unique_ptr<SceneStatus> status;
    std::unique_ptr<PowerSource> powerSource;
    std::unique_ptr<PowerMonitor> power;
    std::unique_ptr<HistoryStore> history;
    std::unique_ptr<WeatherService> weather;
    std::unique_ptr<WindowList> windowList;
    std::unique_ptr<SessionSignals> session;
    std::unique_ptr<X11DesktopStacking> stacking;
    std::unique_ptr<WaylandConnection> wayland;
    std::unique_ptr<SceneInstaller> installer;
    std::unique_ptr<MprisPlayerBackend> players;
    std::unique_ptr<NowPlayingMonitor> monitor;
    std::unique_ptr<MusicPermission> music;
    std::unique_ptr<SystemProcessLauncher> launcher;
    std::unique_ptr<DesktopCleaner> cleaner;
    std::unique_ptr<DesktopPresence> desktopWindows;
    std::unique_ptr<TrayIcon> tray;
    std::unique_ptr<PopoverWindow> popoverWindow;
    std::unique_ptr<SettingsWindow> settingsWindow;
    std::unique_ptr<OnboardingWindow> onboardingWindow;
    QString recordedAlbum;
};
