#include "ui/PopoverModel.h"

#include "core/app/Settings.h"
#include "core/app/SettingsTable.h"
#include "core/delivery/PackageDownload.h"
#include "core/delivery/SceneInstaller.h"
#include "core/environment/PowerMonitor.h"
#include "core/environment/WeatherService.h"
#include "core/lighting/LightMixer.h"
#include "core/music/PlayerState.h"
#include "core/scene/SceneFiles.h"
#include "core/turntable/RecordGrooves.h"

#include <QLocale>

PopoverModel::PopoverModel(const UiServices &services, QObject *parent)
    : QObject(parent)
    , s(services)
{
    if (s.settings) connect(s.settings, &Settings::changed, this, &PopoverModel::changed);
    if (s.status) connect(s.status, &SceneStatus::changed, this, &PopoverModel::changed);
    if (s.state) {
        connect(s.state, &PlayerState::trackChanged, this, &PopoverModel::changed);
        connect(s.state, &PlayerState::artworkChanged, this, &PopoverModel::changed);
        connect(s.state, &PlayerState::playingChanged, this, &PopoverModel::changed);
    }
    if (s.power) connect(s.power, &PowerMonitor::changed, this, &PopoverModel::changed);
    if (s.installer) {
        connect(s.installer, &SceneInstaller::phaseChanged, this, &PopoverModel::changed);
        connect(s.installer, &SceneInstaller::framingsChanged, this, &PopoverModel::framingDownloadEnded);
        connect(s.installer, &SceneInstaller::framingsChanged, this, &PopoverModel::changed);
        connect(s.installer, &SceneInstaller::noticeChanged, this, &PopoverModel::changed);
        connect(s.installer, &SceneInstaller::sceneTitleChanged, this, &PopoverModel::changed);
    }
}

QString PopoverModel::header() const
{
    if (!roomShown()) return tr("Hidden");
    return s.settings && s.settings->allScreens() ? tr("On the desk · All displays") : tr("On the desk · Main display");
}

QStringList PopoverModel::statusLines() const
{
    QStringList lines;
    for (const QString &line :
         {sceneLine(s.status, s.installer), installerLine(s.installer), weatherLine(), saverLine()})
        if (!line.isEmpty()) lines << line;
    return lines;
}

QString PopoverModel::sceneLine(const SceneStatus *status, const SceneInstaller *installer)
{
    if (!status) return {};
    if (const auto &problem = status->problem()) return problemText(problem->reason, installer && installer->running());
    return status->manifest() ? QString() : tr("Getting the room ready…");
}

QString PopoverModel::problemText(SceneStatus::Reason reason, bool downloading)
{
    using Reason = SceneStatus::Reason;
    switch (reason) {
    case Reason::noScene:
        // The installer's own line follows with the phase and the progress.
        return downloading ? tr("The room is being downloaded. It appears on the desk once it’s installed.")
                           : tr("No room is installed yet. Check Now in Settings › Scene downloads it.");
    case Reason::badManifest:
        return tr("The room didn’t load. Reload it in Settings › Scene.");
    case Reason::damagedPlates:
        return tr("Some of the room’s files are missing or damaged, so it can’t be drawn. Reload it in Settings › "
                  "Scene.");
    case Reason::gpu:
        return tr("The graphics device couldn’t draw the room. Reload it in Settings › Scene to try again.");
    case Reason::noBackground:
        return tr("This desktop doesn’t let programs draw its background, so the room can’t be shown here. "
                  "Log in to an X11 session (such as “GNOME on Xorg”) to see it.");
    }
    return {};
}

QString PopoverModel::installerLine(const SceneInstaller *installer)
{
    if (!installer) return {};
    const SceneInstaller::Phase &p = installer->phase();
    const QString title = installer->sceneTitle().value_or(tr("the room"));
    QString line;
    switch (p.kind) {
    case SceneInstaller::Phase::checking:
        line = tr("Checking for a new room…");
        break;
    case SceneInstaller::Phase::downloading:
        line = p.total > 0
                   ? tr("Downloading %1: %2 of %3")
                         .arg(title, PackageDownload::formatBytes(p.received), PackageDownload::formatBytes(p.total))
                   : tr("Downloading %1…").arg(title);
        break;
    case SceneInstaller::Phase::verifying:
        line = tr("Checking the download of %1…").arg(title);
        break;
    case SceneInstaller::Phase::installing:
        line = tr("Installing %1…").arg(title);
        break;
    case SceneInstaller::Phase::failed:
        line = p.message;
        break;
    case SceneInstaller::Phase::idle:
    case SceneInstaller::Phase::ready:
        break;
    }
    if (!installer->notice().isEmpty())
        line = line.isEmpty() ? installer->notice() : line + QLatin1Char('\n') + installer->notice();
    return line;
}

std::optional<double> PopoverModel::installProgress() const
{
    if (!s.installer) return std::nullopt;
    const SceneInstaller::Phase &p = s.installer->phase();
    if (p.kind != SceneInstaller::Phase::downloading || p.total <= 0) return std::nullopt;
    return std::clamp(double(p.received) / double(p.total), 0.0, 1.0);
}

QString PopoverModel::weatherLine() const
{
    if (!s.status || !s.settings || !s.status->weather() || !s.settings->fxWeather()) return {};
    const QString city = WeatherService::city(*s.settings).name();
    return s.status->weather()->raining ? tr("Raining in %1").arg(city) : tr("No rain in %1").arg(city);
}

QString PopoverModel::saverLine() const
{
    if (!s.power || !s.power->ecoActive()) return {};
    return s.power->onBattery() ? tr("On battery: lighter animations.") : tr("Low Power Mode: lighter animations.");
}

bool PopoverModel::musicConnected() const { return s.settings && s.settings->musicSetupDone(); }

PopoverModel::NowPlaying PopoverModel::nowPlaying() const
{
    NowPlaying n;
    n.emptyText = musicConnected() ? tr("Play something in Spotify or Music.") : tr("Connect Spotify or Music…");
    if (!s.state || !s.state->track()) return n;
    const Track &t = *s.state->track();
    n.hasTrack = true;
    n.playing = s.state->isPlaying();
    n.title = t.title;
    n.artist = t.artist;
    n.album = t.album;
    n.player = t.source.name;
    n.cover = s.state->artwork();
    if (const auto side = RecordGrooves::side(t.trackNumber, t.trackCount, t.album))
        n.side = (side->first == QLatin1Char('A') ? tr("Side A · track ") : tr("Side B · track ")) +
                 QString::number(side->second);
    return n;
}

QString PopoverModel::lightMode() const { return s.settings ? s.settings->lightPreset() : QStringLiteral("auto"); }

QStringList PopoverModel::lightPresets() const
{
    const QStringList &canonical = PlateManifest::canonicalPresets();
    if (!s.status || !s.status->manifest()) return canonical;
    QStringList out;
    for (const QString &name : canonical)
        if (s.status->manifest()->presets.count(name)) out << name;
    return out;
}

QString PopoverModel::activePreset(const QDateTime &now) const
{
    return LightPresets::current(s.status ? s.status->manifest() : std::nullopt, lightMode(), now);
}

std::optional<double> PopoverModel::clockPosition(const QDateTime &now) const
{
    return LightPresets::position(s.status ? s.status->manifest() : std::nullopt, now);
}

void PopoverModel::chooseLight(const QString &mode)
{
    if (s.settings && mode != s.settings->lightPreset()) s.settings->setLightPreset(mode);
}

QList<PopoverModel::Tile> PopoverModel::tiles() const
{
    QList<Tile> out;
    if (!s.status) return out;
    // A framing package only adds the files of a framing that the room's manifest describes, so
    // the manifest names every tile; the disk and the catalog say what each one is.
    const QString chosen = s.settings ? s.settings->framing() : QString();
    const QString shown = s.status->framing();
    const auto &download = s.installer ? s.installer->framingDownload() : std::nullopt;
    for (const QString &name : s.status->framings()) {
        Tile t;
        t.name = name;
        t.title = PlateManifest::framingDisplayName(name);
        const bool offered = s.installer && s.installer->framingEntries().contains(name);
        if (offered) t.sizeText = PackageDownload::formatBytes(s.installer->framingSizes().value(name));
        if (s.status->installedFramings().contains(name)) {
            t.current = shown.isEmpty() ? chosen == name : shown == name;
            t.text = t.current ? tr("In use") : tr("Installed");
        } else if (download && download->name == name) {
            t.kind = Tile::Kind::downloading;
            t.progress =
                download->total > 0 ? std::clamp(double(download->received) / double(download->total), 0.0, 1.0) : 0;
            t.text = tr("Downloading… %1%").arg(int(t.progress * 100));
        } else if (offered && s.installer->framingFailed().contains(name)) {
            t.kind = Tile::Kind::failed;
            t.text = QString::fromUtf8(SceneInstaller::kFramingFailedText);
        } else if (offered) {
            t.kind = Tile::Kind::downloadable;
            t.text = tr("Download");
        } else {
            t.kind = Tile::Kind::unavailable;
            t.text = tr("Not on this computer, and not offered for download.");
        }
        out << t;
    }
    return out;
}

void PopoverModel::activateTile(const QString &name)
{
    const QList<Tile> all = tiles();
    const auto it = std::find_if(all.begin(), all.end(), [&](const Tile &t) { return t.name == name; });
    if (it == all.end()) return;
    switch (it->kind) {
    case Tile::Kind::installed:
        if (s.settings) s.settings->setFraming(name);
        break;
    case Tile::Kind::downloadable:
    case Tile::Kind::failed:
        if (s.installer && !s.installer->framingRunning()) {
            awaitedFraming = name;
            s.installer->installFraming(s.installer->framingEntries().value(name), name);
        }
        break;
    case Tile::Kind::downloading:
    case Tile::Kind::unavailable:
        break;
    }
}

bool PopoverModel::onDisk(const QString &framing) const
{
    return s.status && s.status->manifest() &&
           !SceneFiles::installed(s.status->source(), *s.status->manifest(), {framing}).isEmpty();
}

void PopoverModel::framingDownloadEnded()
{
    if (awaitedFraming.isEmpty() || s.installer->framingRunning()) return;
    const QString name = std::exchange(awaitedFraming, QString());
    // The room only ever switches to a framing whose files are all there.
    if (s.installer->framingFailed().contains(name) || !onDisk(name) || !s.settings) return;
    if (s.settings->framing() != name)
        s.settings->setFraming(name);
    else if (s.reloadScene)
        s.reloadScene();  // chosen before it was there: the room shows it now
}

QList<PopoverModel::Effect> PopoverModel::effects() const
{
    QList<Effect> out;
    if (!s.settings) return out;
    const Settings &st = *s.settings;
    const std::pair<const char *, bool> keys[] = {{"fxRecord", st.fxRecord()}, {"fxBounce", st.fxBounce()},
                                                  {"fxPanel", st.fxPanel()},   {"fxWeather", st.fxWeather()},
                                                  {"fxStack", st.fxStack()},   {"steam", st.steam()}};
    for (const auto &[key, on] : keys)
        out << Effect{QString::fromLatin1(key), SettingsTable::label(QString::fromLatin1(key)), on};
    return out;
}

void PopoverModel::setEffect(const QString &key, bool on)
{
    if (s.settings) s.settings->setEffect(key, on);
}

bool PopoverModel::roomShown() const { return !s.settings || s.settings->showTurntable(); }

void PopoverModel::setRoomShown(bool on)
{
    if (s.setShowTurntable)
        s.setShowTurntable(on);
    else if (s.settings)
        s.settings->setShowTurntable(on);
}
