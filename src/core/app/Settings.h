#pragma once

#include <QObject>
#include <QSettings>
#include <QVariant>
#include <memory>
#include <optional>

class QFileSystemWatcher;

// Every user choice and developer switch, one key each, in the settings of organisation "quelt",
// application "turnelo" ("turnelo-dev" for a development build, whose data and log are apart
// too). Nothing is pre-registered: each accessor applies its key's default when the key is
// absent. Setters write at once, so nothing has to be saved at quit.
//
// Observable keys (the effect switches, "framing", "lightPreset") emit their signal on the
// main thread after a change made through this object or by another process (another process
// writing the file is noticed through a file watch).
//
// Main thread only.
class Settings : public QObject {
    Q_OBJECT
public:
    // The user's settings file of this build's flavour (userFilePath(AppIdentity::isRelease())).
    explicit Settings(QObject *parent = nullptr);
    // A given settings file (tests, tools).
    explicit Settings(const QString &filePath, QObject *parent = nullptr);
    ~Settings() override;

    QString filePath() const;
    // The user's settings file of a release or a development build:
    // $XDG_CONFIG_HOME/quelt/turnelo.json or …/quelt/turnelo-dev.json.
    static QString userFilePath(bool release);

    // Raw access, typed values as stored; an absent key gives an invalid QVariant.
    QVariant value(const QString &key) const;
    void setValue(const QString &key, const QVariant &value);
    void remove(const QString &key);
    bool contains(const QString &key) const;

    // Shell
    bool showMenuBarIcon() const;
    void setShowMenuBarIcon(bool on);
    // Read as object: only a stored Boolean false hides the room.
    bool showTurntable() const;
    void setShowTurntable(bool on);
    // True for "all"; any other value means the main display only.
    bool allScreens() const;
    void setAllScreens(bool all);

    // Scene
    QString framing() const;
    void setFraming(const QString &name);
    QString lightPreset() const;
    void setLightPreset(const QString &mode);

    // Effects: true unless a Boolean false is stored.
    bool steam() const;
    bool fxRecord() const;
    bool fxBounce() const;
    bool fxWeather() const;
    bool fxStack() const;
    bool fxPanel() const;
    void setEffect(const QString &key, bool on);

    // Music
    int stackLimit() const;  // at least 1
    void setStackLimit(int limit);
    bool musicSetupDone() const;
    void setMusicSetupDone(bool done);
    bool onboardingDone() const;
    void setOnboardingDone(bool done);

    // Power
    bool ecoMode() const;
    void setEcoMode(bool on);
    enum class EcoTrigger { battery, lowPower };
    EcoTrigger ecoTrigger() const;
    void setEcoTrigger(EcoTrigger trigger);

    // Weather
    QString weatherCity() const;
    void setWeatherCity(const QString &city);
    std::optional<double> weatherLatitude() const;
    std::optional<double> weatherLongitude() const;
    void setWeatherCoordinates(std::optional<double> latitude, std::optional<double> longitude);
    // Base URL of the forecast service; "v1/forecast?…" is appended.
    QString weatherServiceURL() const;

    // Desktop cleaner
    std::optional<QVariantMap> desktopSnapshot() const;
    void setDesktopSnapshot(const std::optional<QVariantMap> &snapshot);

    // Scene delivery
    std::optional<QString> sceneCatalogETag() const;
    void setSceneCatalogETag(const std::optional<QString> &tag);
    // Base URL of the content service, ending with a slash; "v1/scenes/…" is appended.
    QString contentServiceURL() const;

    // Developer settings (no user interface; written from outside, e.g. turnelo-defaults).
    int fps() const;                 // 15…60
    double perfLogInterval() const;  // seconds
    std::optional<bool> labelMotionBlur() const;
    QVariant showcase() const;  // as stored, or invalid
    bool debugIgnoreOcclusion() const;
    bool debugSimulateNoMusic() const;
    std::optional<QString> debugCoverArt() const;
    std::optional<QString> debugWeather() const;

    // The observable keys, in the order of their signals.
    static const QStringList &observableKeys();

signals:
    void steamChanged();
    void fxRecordChanged();
    void fxBounceChanged();
    void fxWeatherChanged();
    void fxStackChanged();
    void fxPanelChanged();
    void framingChanged();
    void lightPresetChanged();
    // Any key, written here or by another process.
    void changed(const QString &key);

private:
    void init();
    bool effect(const char *key) const;
    bool plainBool(const char *key, bool fallback) const;
    std::optional<QString> optionalText(const char *key) const;
    std::optional<double> optionalNumber(const char *key) const;
    void reloadFromDisk();
    // Writes the file now; a link at its path is replaced by an ordinary file first, and a change
    // that did not reach the file is logged.
    void save(const QString &key);
    bool fileHolds(const QString &key) const;
    void notify(const QString &key);

    std::unique_ptr<QSettings> store;
    QFileSystemWatcher *watcher = nullptr;
    QVariantMap observed;  // last seen values of the observable keys
};
