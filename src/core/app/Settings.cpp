#include "core/app/Settings.h"

#include "core/app/AppIdentity.h"
#include "core/app/JsonSettingsFormat.h"
#include "core/app/Log.h"
#include "core/app/StateFile.h"

#include <QDir>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>
#include <QThread>
#include <algorithm>

namespace {

bool isBool(const QVariant &v) { return v.typeId() == QMetaType::Bool; }

bool isNumber(const QVariant &v)
{
    switch (v.typeId()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
    case QMetaType::Float:
        return true;
    default:
        return false;
    }
}

// Integer keys accept any number, and text that reads as an integer, as the defaults
// system does; anything else counts as absent.
std::optional<qlonglong> integerOf(const QVariant &v)
{
    if (isNumber(v)) return v.toLongLong();
    if (v.typeId() == QMetaType::QString) {
        bool ok = false;
        const qlonglong n = v.toString().trimmed().toLongLong(&ok);
        if (ok) return n;
    }
    return std::nullopt;
}

}  // namespace

Settings::Settings(QObject *parent)
    : QObject(parent)
    , store(std::make_unique<QSettings>(JsonSettingsFormat::format(), QSettings::UserScope, QStringLiteral("quelt"),
                                        AppIdentity::settingsName(AppIdentity::isRelease())))
{
    init();
}

QString Settings::userFilePath(bool release)
{
    return QSettings(JsonSettingsFormat::format(), QSettings::UserScope, QStringLiteral("quelt"),
                     AppIdentity::settingsName(release))
        .fileName();
}

Settings::Settings(const QString &filePath, QObject *parent)
    : QObject(parent)
    , store(std::make_unique<QSettings>(filePath, JsonSettingsFormat::format()))
{
    init();
}

Settings::~Settings() = default;

void Settings::init()
{
    // A process killed while taking QSettings' lock leaves a lock file without an owner in it,
    // which QSettings would wait 30 s to see as stale. One that no live process holds goes now.
    const QString lockPath = store->fileName() + QStringLiteral(".lock");
    QLockFile leftover(lockPath);
    leftover.setStaleLockTime(1);
    bool taken = leftover.tryLock(0);
    if (!taken && QFileInfo(lockPath).size() == 0) {
        // Only its age says it is stale: give it a few milliseconds of it.
        QThread::msleep(5);
        taken = leftover.tryLock(0);
    }
    if (taken) leftover.unlock();
    for (const QString &key : store->allKeys()) observed.insert(key, store->value(key));
    watcher = new QFileSystemWatcher(this);
    const QFileInfo info(store->fileName());
    QDir().mkpath(info.absolutePath());
    watcher->addPath(info.absolutePath());
    if (info.exists()) watcher->addPath(info.absoluteFilePath());
    connect(watcher, &QFileSystemWatcher::fileChanged, this, &Settings::reloadFromDisk);
    connect(watcher, &QFileSystemWatcher::directoryChanged, this, &Settings::reloadFromDisk);
}

QString Settings::filePath() const { return store->fileName(); }

QVariant Settings::value(const QString &key) const { return store->value(key); }
bool Settings::contains(const QString &key) const { return store->contains(key); }

void Settings::setValue(const QString &key, const QVariant &value)
{
    store->setValue(key, value);
    save(key);
    notify(key);
}

void Settings::remove(const QString &key)
{
    store->remove(key);
    save(key);
    notify(key);
}

void Settings::save(const QString &key)
{
    const QString path = store->fileName();
    const QString name = QFileInfo(path).fileName();
    if (QFileInfo(path).isSymLink()) {
        // QSettings would write wherever the link points, a file that may not be ours to change.
        // What the settings hold goes into an ordinary file in the link's place instead: the
        // choices are kept, and the target stays as it was.
        QSettings::SettingsMap all;
        for (const QString &k : store->allKeys()) all.insert(k, store->value(k));
        QString error;
        if (StateFile::write(path, JsonSettingsFormat::encode(all), &error)) {
            Log::write(QStringLiteral("Ajustes: ") + name +
                       QStringLiteral(" era um link; agora é um arquivo comum, o destino ficou intacto"));
        } else {
            Log::write(QStringLiteral("Ajustes: não foi possível trocar o link ") + name + QStringLiteral(" (") +
                       error + QStringLiteral(")"));
            // Without the link QSettings writes a file of its own here, or fails; never the target.
            if (!QFile::remove(path)) return;
        }
    }
    store->sync();
    // QSettings keeps its first error for good: whether this change reached the file is read back.
    if (store->status() != QSettings::NoError && !fileHolds(key))
        Log::write(QStringLiteral("Ajustes: não foi possível gravar \"") + key + QStringLiteral("\" em ") + path);
}

bool Settings::fileHolds(const QString &key) const
{
    QFile file(store->fileName());
    if (!file.open(QIODevice::ReadOnly)) return false;
    const QJsonObject root = QJsonDocument::fromJson(file.readAll()).object();
    if (!store->contains(key)) return !root.contains(key);
    return root.contains(key) && JsonSettingsFormat::fromJson(root.value(key)) == store->value(key);
}

const QStringList &Settings::observableKeys()
{
    static const QStringList keys{"steam",   "fxRecord", "fxBounce", "fxWeather",
                                  "fxStack", "fxPanel",  "framing",  "lightPreset"};
    return keys;
}

void Settings::notify(const QString &key)
{
    const QVariant now = store->value(key);
    const QVariant before = observed.value(key);
    if (now == before && now.typeId() == before.typeId()) return;
    if (now.isValid())
        observed.insert(key, now);
    else
        observed.remove(key);
    switch (observableKeys().indexOf(key)) {
    case 0:
        emit steamChanged();
        break;
    case 1:
        emit fxRecordChanged();
        break;
    case 2:
        emit fxBounceChanged();
        break;
    case 3:
        emit fxWeatherChanged();
        break;
    case 4:
        emit fxStackChanged();
        break;
    case 5:
        emit fxPanelChanged();
        break;
    case 6:
        emit framingChanged();
        break;
    case 7:
        emit lightPresetChanged();
        break;
    default:
        break;
    }
    emit changed(key);
}

void Settings::reloadFromDisk()
{
    // A writer that replaces the file by renaming leaves the old watch on a gone inode.
    const QFileInfo info(store->fileName());
    if (info.exists() && !watcher->files().contains(info.absoluteFilePath())) watcher->addPath(info.absoluteFilePath());
    store->sync();
    QStringList keys = store->allKeys();
    for (auto it = observed.cbegin(); it != observed.cend(); ++it)
        if (!keys.contains(it.key())) keys.append(it.key());
    for (const QString &key : keys) notify(key);
}

bool Settings::effect(const char *key) const
{
    const QVariant v = store->value(QLatin1String(key));
    return !(isBool(v) && !v.toBool());
}

bool Settings::plainBool(const char *key, bool fallback) const
{
    const QVariant v = store->value(QLatin1String(key));
    return isBool(v) ? v.toBool() : fallback;
}

std::optional<QString> Settings::optionalText(const char *key) const
{
    const QVariant v = store->value(QLatin1String(key));
    if (v.typeId() == QMetaType::QString) return v.toString();
    return std::nullopt;
}

std::optional<double> Settings::optionalNumber(const char *key) const
{
    const QVariant v = store->value(QLatin1String(key));
    if (isNumber(v)) return v.toDouble();
    return std::nullopt;
}

bool Settings::showMenuBarIcon() const { return plainBool("showMenuBarIcon", true); }
void Settings::setShowMenuBarIcon(bool on) { setValue(QStringLiteral("showMenuBarIcon"), on); }
bool Settings::showTurntable() const { return effect("showTurntable"); }
void Settings::setShowTurntable(bool on) { setValue(QStringLiteral("showTurntable"), on); }

bool Settings::allScreens() const { return optionalText("screens") == QStringLiteral("all"); }
void Settings::setAllScreens(bool all)
{
    setValue(QStringLiteral("screens"), all ? QStringLiteral("all") : QStringLiteral("main"));
}

QString Settings::framing() const { return optionalText("framing").value_or(QStringLiteral("mid")); }
void Settings::setFraming(const QString &name) { setValue(QStringLiteral("framing"), name); }
QString Settings::lightPreset() const { return optionalText("lightPreset").value_or(QStringLiteral("auto")); }
void Settings::setLightPreset(const QString &mode) { setValue(QStringLiteral("lightPreset"), mode); }

bool Settings::steam() const { return effect("steam"); }
bool Settings::fxRecord() const { return effect("fxRecord"); }
bool Settings::fxBounce() const { return effect("fxBounce"); }
bool Settings::fxWeather() const { return effect("fxWeather"); }
bool Settings::fxStack() const { return effect("fxStack"); }
bool Settings::fxPanel() const { return effect("fxPanel"); }
void Settings::setEffect(const QString &key, bool on) { setValue(key, on); }

int Settings::stackLimit() const
{
    const auto n = integerOf(store->value(QStringLiteral("stackLimit")));
    if (!n) return 6;
    return int(std::clamp<qlonglong>(*n, 1, 1 << 20));
}
void Settings::setStackLimit(int limit) { setValue(QStringLiteral("stackLimit"), limit); }

bool Settings::musicSetupDone() const { return plainBool("musicSetupDone", false); }
void Settings::setMusicSetupDone(bool done) { setValue(QStringLiteral("musicSetupDone"), done); }
bool Settings::onboardingDone() const { return plainBool("onboardingDone", false); }
void Settings::setOnboardingDone(bool done) { setValue(QStringLiteral("onboardingDone"), done); }

bool Settings::ecoMode() const { return effect("ecoMode"); }
void Settings::setEcoMode(bool on) { setValue(QStringLiteral("ecoMode"), on); }

Settings::EcoTrigger Settings::ecoTrigger() const
{
    return optionalText("ecoTrigger") == QStringLiteral("lowPower") ? EcoTrigger::lowPower : EcoTrigger::battery;
}
void Settings::setEcoTrigger(EcoTrigger trigger)
{
    setValue(QStringLiteral("ecoTrigger"),
             trigger == EcoTrigger::lowPower ? QStringLiteral("lowPower") : QStringLiteral("battery"));
}

QString Settings::weatherCity() const { return optionalText("weatherCity").value_or(QStringLiteral("sao-paulo")); }
void Settings::setWeatherCity(const QString &city) { setValue(QStringLiteral("weatherCity"), city); }
std::optional<double> Settings::weatherLatitude() const { return optionalNumber("weatherLatitude"); }
std::optional<double> Settings::weatherLongitude() const { return optionalNumber("weatherLongitude"); }

void Settings::setWeatherCoordinates(std::optional<double> latitude, std::optional<double> longitude)
{
    if (latitude)
        setValue(QStringLiteral("weatherLatitude"), *latitude);
    else
        remove(QStringLiteral("weatherLatitude"));
    if (longitude)
        setValue(QStringLiteral("weatherLongitude"), *longitude);
    else
        remove(QStringLiteral("weatherLongitude"));
}

QString Settings::weatherServiceURL() const
{
    return optionalText("weatherServiceURL").value_or(QStringLiteral("https://api.open-meteo.com/"));
}

std::optional<QVariantMap> Settings::desktopSnapshot() const
{
    const QVariant v = store->value(QStringLiteral("desktopSnapshot"));
    if (v.typeId() == QMetaType::QVariantMap) return v.toMap();
    return std::nullopt;
}

void Settings::setDesktopSnapshot(const std::optional<QVariantMap> &snapshot)
{
    if (snapshot)
        setValue(QStringLiteral("desktopSnapshot"), *snapshot);
    else
        remove(QStringLiteral("desktopSnapshot"));
}

std::optional<QString> Settings::sceneCatalogETag() const { return optionalText("sceneCatalogETag"); }
void Settings::setSceneCatalogETag(const std::optional<QString> &tag)
{
    if (tag)
        setValue(QStringLiteral("sceneCatalogETag"), *tag);
    else
        remove(QStringLiteral("sceneCatalogETag"));
}

QString Settings::contentServiceURL() const
{
    QString url = optionalText("contentServiceURL").value_or(QStringLiteral("https://scenes.quelt.app/"));
    if (!url.endsWith(QLatin1Char('/'))) url += QLatin1Char('/');
    return url;
}

int Settings::fps() const
{
    const auto n = integerOf(store->value(QStringLiteral("fps")));
    return int(std::clamp<qlonglong>(n.value_or(30), 15, 60));
}

double Settings::perfLogInterval() const { return optionalNumber("perfLogInterval").value_or(300.0); }

std::optional<bool> Settings::labelMotionBlur() const
{
    const QVariant v = store->value(QStringLiteral("labelMotionBlur"));
    if (isBool(v)) return v.toBool();
    return std::nullopt;
}

QVariant Settings::showcase() const { return store->value(QStringLiteral("showcase")); }
bool Settings::debugIgnoreOcclusion() const { return plainBool("debugIgnoreOcclusion", false); }
bool Settings::debugSimulateNoMusic() const { return plainBool("debugSimulateNoMusic", false); }
std::optional<QString> Settings::debugCoverArt() const { return optionalText("debugCoverArt"); }
std::optional<QString> Settings::debugWeather() const { return optionalText("debugWeather"); }
