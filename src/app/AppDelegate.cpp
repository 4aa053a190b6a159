#include "app/AppDelegate.h"

#include "app/DesktopWindowController.h"
#include "app/TrayIcon.h"
#include "app/WaylandDesktopController.h"
#include "core/app/AppIdentity.h"
#include "core/app/Log.h"
#include "core/app/Settings.h"
#include "core/delivery/SceneInstaller.h"
#include "core/environment/DesktopCleaner.h"
#include "core/environment/ProcessLauncher.h"
#include "core/environment/PowerMonitor.h"
#include "core/environment/WeatherService.h"
#include "core/music/HistoryStore.h"
#include "core/music/MusicPermission.h"
#include "core/music/NowPlayingMonitor.h"
#include "core/music/PlayerState.h"
#include "core/scene/SceneLocation.h"
#include "core/scene/SceneStatus.h"
#include "core/scheduling/SessionSignals.h"
#include "platform/linux/LinuxDesktopPreferences.h"
#include "platform/linux/LinuxSessionSignals.h"
#include "platform/linux/MprisPlayerBackend.h"
#include "platform/linux/UPowerPowerSource.h"
#include "platform/linux/X11DesktopStacking.h"
#include "platform/linux/X11DesktopWindow.h"
#include "platform/linux/X11WindowBackground.h"
#include "platform/linux/X11WindowList.h"
#include "platform/linux/XdgAutostart.h"
#include "platform/wayland/WaylandConnection.h"
#include "platform/wayland/PlasmaWindowList.h"
#include "platform/wayland/WaylandWindowList.h"
#include "scene/OfflineRender.h"
#include "ui/OnboardingWindow.h"
#include "ui/PopoverWindow.h"
#include "ui/SettingsWindow.h"

#include <QCoreApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QGuiApplication>
#include <QLocale>
#include <QScreen>
#include <QSettings>
#include <QTemporaryDir>
#include <QUrl>

AppDelegate::AppDelegate(Options o, QObject *parent)
    : QObject(parent)
    , options(o)
{
    settingsStore = std::make_unique<Settings>();
    state = std::make_unique<PlayerState>();
    status = std::make_unique<SceneStatus>();
    powerSource = std::make_unique<UPowerPowerSource>();
    power = std::make_unique<PowerMonitor>(*settingsStore, powerSource.get());
}

AppDelegate::~AppDelegate()
{
    // Views first: they hold references to everything below.
    onboardingWindow.reset();
    settingsWindow.reset();
    popoverWindow.reset();
    tray.reset();
    desktopWindows.reset();
    monitor.reset();
    windowList.reset();  // before the connection it listens on
}

SceneInstaller &AppDelegate::scenes()
{
    if (!installer) {
        SceneInstaller::Options options;
        options.shippedRoom = SceneLocation::bundledRoom();
        installer = std::make_unique<SceneInstaller>(*settingsStore, options);
    }
    return *installer;
}

QString AppDelegate::startupLine(const QString &version, const QString &path, const QString &language,
                                 const QString &autostart, int screens)
{
    return QStringLiteral("Turnelo ") + version + QStringLiteral(" iniciada (") + path + QStringLiteral("); idioma ") +
           (language.isEmpty() ? QStringLiteral("?") : language) + QStringLiteral("; abrir no login: ") + autostart +
           QStringLiteral("; telas: ") + QString::number(screens);
}

void AppDelegate::start()
{
    const auto room = SceneLocation::resolve();
    Log::write(startupLine(AppIdentity::version(), QCoreApplication::applicationFilePath(),
                           QLocale::system().uiLanguages().value(0), XdgAutostart::word(),
                           int(QGuiApplication::screens().size())) +
               QStringLiteral("; sala: ") +
               (room ? room->root + QStringLiteral(" (") + SceneLocation::originWord(room->origin) + QLatin1Char(')')
                     : QStringLiteral("nenhuma")));

    history = std::make_unique<HistoryStore>(*settingsStore);
    weather = std::make_unique<WeatherService>(*settingsStore);
    session = std::make_unique<LinuxSessionSignals>();
    desktopWindows = makeDesktop();
    if (desktopWindows) {
        desktopWindows->rebuildSurfaces();
        desktopWindows->watchPlates();
        weather->onChange = [desk = desktopWindows.get()](const WeatherService::Now &now) {
            desk->weatherChanged(now);
        };
    }

    scenes().onInstalled = [desk = desktopWindows.get()] {
        if (desk) desk->loadScene();
    };
    if (!SceneLocation::usesDevelopmentScenes()) scenes().sync();

    if (desktopWindows && settingsStore->showTurntable()) desktopWindows->show();
    // The same switches written from outside (another window of ours, turnelo-defaults).
    connect(settingsStore.get(), &Settings::changed, this, [this](const QString &key) {
        if (!desktopWindows) return;
        if (key == QStringLiteral("screens")) desktopWindows->rebuildSurfaces();
        if (key == QStringLiteral("showTurntable")) {
            if (settingsStore->showTurntable())
                desktopWindows->show();
            else
                desktopWindows->hide();
        }
    });

    players = std::make_unique<MprisPlayerBackend>();
    monitor = std::make_unique<NowPlayingMonitor>(*state, *players);
    connect(state.get(), &PlayerState::artworkChanged, this, &AppDelegate::recordHistory);
    MusicPermission::Probe probe;
    probe.players = [backend = players.get()] { return backend->sources(); };
    // MPRIS asks no consent: a player is readable while it is open.
    probe.status = [backend = players.get()](const PlayerSource &source) {
        return backend->isRunning(source) ? MusicPermission::Status::available : MusicPermission::Status::notRunning;
    };
    music = std::make_unique<MusicPermission>(*settingsStore, probe);
    connect(music.get(), &MusicPermission::setupFinished, monitor.get(), &NowPlayingMonitor::start);
    if (options.markMusicSetupDone) settingsStore->setMusicSetupDone(true);
    if (settingsStore->musicSetupDone()) monitor->start();
    launcher = std::make_unique<SystemProcessLauncher>();
    cleaner = std::make_unique<DesktopCleaner>(*settingsStore, linuxDesktopPreferences(), *launcher);
    cleaner->setUnavailableNote(linuxDesktopCleanerNote());

    tray = std::make_unique<TrayIcon>(TrayIcon::Actions{
        [this] { return settingsStore->showTurntable(); },
        [this](bool on) { setShowTurntable(on); },
        [this] { return settingsStore->allScreens(); },
        [this](bool all) { setScreens(all); },
        [this] {
            if (desktopWindows) desktopWindows->loadScene();
        },
        [] { QDesktopServices::openUrl(QUrl::fromLocalFile(Log::path())); },
        [] { QCoreApplication::quit(); },
        [this](const QRect &icon) {
            if (popover().isVisible())
                popover().hide();
            else
                popover().popup(icon);
        },
    });
    tray->setVisible(settingsStore->showMenuBarIcon());
    connect(settingsStore.get(), &Settings::changed, this, [this](const QString &key) {
        if (key == QStringLiteral("showMenuBarIcon")) tray->setVisible(settingsStore->showMenuBarIcon());
    });

    if (!settingsStore->onboardingDone()) onboarding().show(1);
}

UiServices AppDelegate::uiServices()
{
    UiServices u;
    u.settings = settingsStore.get();
    u.state = state.get();
    u.status = status.get();
    u.power = power.get();
    u.installer = &scenes();
    u.history = history.get();
    u.music = music.get();
    u.cleaner = cleaner.get();
    u.setShowTurntable = [this](bool on) { setShowTurntable(on); };
    u.setScreens = [this](bool all) { setScreens(all); };
    u.reloadScene = [this] {
        if (desktopWindows) desktopWindows->loadScene();
    };
    u.openLog = [] { QDesktopServices::openUrl(QUrl::fromLocalFile(Log::path())); };
    u.quit = [] { QCoreApplication::quit(); };
    u.showSettings = [this] { settings().show(); };
    u.showOnboarding = [this](int step) { onboarding().show(step); };
    u.launchAtLogin = [] { return XdgAutostart::isEnabled(); };
    u.setLaunchAtLogin = [](bool on) { return XdgAutostart::setEnabled(on, QCoreApplication::applicationFilePath()); };
    u.roomPicture = [this](QSize size) { return roomPicture(size); };
    u.logPath = Log::path();
    return u;
}

PopoverWindow &AppDelegate::popover()
{
    if (!popoverWindow) popoverWindow = std::make_unique<PopoverWindow>(uiServices());
    return *popoverWindow;
}

SettingsWindow &AppDelegate::settings()
{
    if (!settingsWindow) settingsWindow = std::make_unique<SettingsWindow>(uiServices());
    return *settingsWindow;
}

OnboardingWindow &AppDelegate::onboarding()
{
    if (!onboardingWindow) onboardingWindow = std::make_unique<OnboardingWindow>(uiServices());
    return *onboardingWindow;
}

QImage AppDelegate::roomPicture(QSize size)
{
    // The same path as "turnelo render": the installed room at this hour, as it stands now.
    const auto scene = SceneLocation::resolve();
    QTemporaryDir dir;
    if (!scene || !dir.isValid()) return {};
    OfflineRender::Options o;
    o.sceneDir = scene->root;
    o.framing = status->framing();
    o.width = size.width();
    o.height = size.height();
    o.output = dir.filePath(QStringLiteral("room.png"));
    o.localTime = QDateTime::currentDateTime();
    if (!OfflineRender::render(o).isEmpty()) return {};
    return QImage(o.output);
}

void AppDelegate::setShowTurntable(bool on)
{
    settingsStore->setShowTurntable(on);
    if (!desktopWindows) return;
    if (on)
        desktopWindows->show();
    else
        desktopWindows->hide();
}

void AppDelegate::setScreens(bool all)
{
    settingsStore->setAllScreens(all);
    if (desktopWindows) desktopWindows->rebuildSurfaces();
}

void AppDelegate::reopen()
{
    Log::write(QStringLiteral("Turnelo: aberta de novo"));
    if (desktopWindows && settingsStore->showTurntable()) desktopWindows->show();
    settings().show();
}

std::unique_ptr<DesktopPresence> AppDelegate::makeDesktop()
{
    RoomScene::Services room;
    room.state = state.get();
    room.status = status.get();
    room.power = power.get();
    room.settings = settingsStore.get();
    room.history = history.get();
    room.weather = weather.get();
    room.session = session.get();

    using WindowSystemChoice::Kind;
    Log::write(QStringLiteral("Sistema de janelas: ") + WindowSystemChoice::word(options.windowSystem));
    if (options.windowSystem == Kind::waylandWithoutBackground) {
        // No stray window: the compositor would show it as an ordinary one, or not at all.
        const QString why = QStringLiteral(
            "este desktop Wayland não deixa programas desenharem o fundo (sem layer shell); a sala aparece numa sessão "
            "X11");
        Log::write(QStringLiteral("Sala indisponível: ") + why);
        status->setProblem(SceneStatus::Problem{SceneStatus::Reason::noBackground, why});
        return nullptr;
    }
    if (options.windowSystem == Kind::wayland) {
        wayland = std::make_unique<WaylandConnection>();
        if (wayland->isOpen() && wayland->hasLayerShell()) {
            // KWin's own list has the windows' geometry; wlroots compositors list states only.
            if (PlasmaWindowList::offered(*wayland)) {
                windowList = std::make_unique<PlasmaWindowList>(*wayland);
                Log::write(QStringLiteral("Wayland: janelas pela lista do KWin"));
            } else {
                windowList = std::make_unique<WaylandWindowList>(*wayland, QGuiApplication::desktopFileName());
            }
            WaylandDesktopController::Services services{room, windowList.get(), session.get()};
            return std::make_unique<WaylandDesktopController>(services, *wayland);
        }
        Log::write(QStringLiteral("Wayland: o compositor não respondeu de novo; sem sala"));
        return nullptr;
    }

    auto x11Windows = std::make_unique<X11WindowList>();
    X11WindowList *listed = x11Windows.get();
    windowList = std::move(x11Windows);
    stacking = std::make_unique<X11DesktopStacking>();
    DesktopWindowController::Services services;
    services.room = room;
    services.windows = windowList.get();
    services.session = session.get();
    DesktopWindowController::Platform platform;
    X11DesktopStacking *stack = stacking.get();
    platform.prepare = [listed](QWindow *w) {
        X11DesktopWindow::prepare(w);
        listed->addOwnWindow(w->winId());
    };
    platform.added = [stack](QWindow *w) { stack->add(w); };
    platform.removed = [stack](QWindow *w) { stack->remove(w); };
    platform.paintBackground = X11WindowBackground::paint;
    return std::make_unique<DesktopWindowController>(services, platform);
}

void AppDelegate::recordHistory()
{
    // The playing album goes on the stack once, when its cover first arrives.
    const auto &track = state->track();
    if (!track || state->artwork().isNull() || track->album == recordedAlbum) return;
    recordedAlbum = track->album;
    history->record(state->artwork(), track->album);
}
