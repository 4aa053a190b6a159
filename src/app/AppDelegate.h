#pragma once

#include <QObject>
#include <QString>
#include <memory>

class DesktopWindowController;
class HistoryStore;
class MprisPlayerBackend;
class NowPlayingMonitor;
class PlayerState;
class PowerMonitor;
class PowerSource;
class SceneInstaller;
class SceneStatus;
class SessionSignals;
class Settings;
class SingleInstance;
class TrayIcon;
class WeatherService;
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
        bool markMusicSetupDone = false;  // until onboarding exists, the command line can say it
    };

    explicit AppDelegate(Options options, QObject *parent = nullptr);
    ~AppDelegate() override;

    // The launch sequence.
    void start();
    // Stores the choice and shows or hides the room.
    void setShowTurntable(bool on);
    // Stores "all" or "main" and rebuilds the windows.
    void setScreens(bool all);
    // Another start of the program knocked: bring the room back.
    void reopen();

    // "ativo" when the XDG autostart entry exists and is not hidden, else "desligado".
    static QString autostartWord();
    // The start-up line.
    static QString startupLine(const QString &version, const QString &path, const QString &language,
                               const QString &autostart, int screens);

    SceneInstaller &scenes();

private:
    void recordHistory();

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
    std::unique_ptr<SceneInstaller> installer;
    std::unique_ptr<MprisPlayerBackend> players;
    std::unique_ptr<NowPlayingMonitor> monitor;
    std::unique_ptr<DesktopWindowController> desktopWindows;
    std::unique_ptr<TrayIcon> tray;
    QString recordedAlbum;
};
