#pragma once

#include "core/scene/PlateManifest.h"

#include <QObject>
#include <QString>
#include <QStringList>
#include <optional>

// What the interface shows about the room: the framings of the installed scene, the one in
// use, where the scene came from, why the room is unavailable, the weather and the manifest.
// Written by the scene views, read by the tray menu and later the popover. Main thread.
class SceneStatus : public QObject {
    Q_OBJECT
public:
    // Why the room is unavailable: the interface shows its own text for each, the log the detail.
    enum class Reason {
        noScene,        // nothing installed yet (a first download may be running)
        badManifest,    // the manifest does not decode or has no framings
        damagedPlates,  // a plate or mask is missing, the wrong size or does not decode
        gpu,            // no device, out of device memory, a lost device, no window surface
        noBackground,   // the desktop lets no program draw its background (Wayland without layer shell)
    };
    struct Problem {
        Reason reason = Reason::noScene;
        QString detail;  // the log's words, for the log and the About tab
        bool operator==(const Problem &) const = default;
    };
    struct Weather {
        bool raining = false;
        double intensity = 0;
        bool operator==(const Weather &) const = default;
    };

    using QObject::QObject;

    const QStringList &framings() const { return framingList; }
    const QString &framing() const { return framingName; }
    const QString &source() const { return sourcePath; }
    const std::optional<Problem> &problem() const { return problemValue; }
    // Framings of the manifest whose files are all on disk (the others can be downloaded).
    const QStringList &installedFramings() const { return installedList; }
    const std::optional<Weather> &weather() const { return weatherNow; }
    const std::optional<PlateManifest> &manifest() const { return manifestValue; }

    void setScene(const QStringList &framings, const QStringList &installed, const QString &framing,
                  const QString &source, const PlateManifest &manifest)
    {
        framingList = framings;
        installedList = installed;
        framingName = framing;
        sourcePath = source;
        manifestValue = manifest;
        emit changed();
    }
    void setProblem(const std::optional<Problem> &problem)
    {
        if (problemValue == problem) return;
        problemValue = problem;
        emit changed();
    }
    void setWeather(const Weather &w)
    {
        if (weatherNow == w) return;
        weatherNow = w;
        emit changed();
    }

signals:
    void changed();

private:
    QStringList framingList;
    QStringList installedList;
    QString framingName;
    QString sourcePath;
    std::optional<Problem> problemValue;
    std::optional<Weather> weatherNow;
    std::optional<PlateManifest> manifestValue;
};
