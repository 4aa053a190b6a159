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
    struct Weather {
        bool raining = false;
        double intensity = 0;
        bool operator==(const Weather &) const = default;
    };

    using QObject::QObject;

    const QStringList &framings() const { return framingList; }
    const QString &framing() const { return framingName; }
    const QString &source() const { return sourcePath; }
    const std::optional<QString> &problem() const { return problemText; }
    const std::optional<Weather> &weather() const { return weatherNow; }
    const std::optional<PlateManifest> &manifest() const { return manifestValue; }

    void setScene(const QStringList &framings, const QString &framing, const QString &source,
                  const PlateManifest &manifest) {
        framingList = framings;
        framingName = framing;
        sourcePath = source;
        manifestValue = manifest;
        emit changed();
    }
    void setProblem(const std::optional<QString> &problem) {
        if (problemText == problem) return;
        problemText = problem;
        emit changed();
    }
    void setWeather(const Weather &w) {
        if (weatherNow == w) return;
        weatherNow = w;
        emit changed();
    }

signals:
    void changed();

private:
    QStringList framingList;
    QString framingName;
    QString sourcePath;
    std::optional<QString> problemText;
    std::optional<Weather> weatherNow;
    std::optional<PlateManifest> manifestValue;
};
