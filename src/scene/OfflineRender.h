#pragma once

#include <QDateTime>
#include <QString>
#include <optional>

// One frame of a scene folder rendered to a PNG, with every moving part fixed by the options:
// the same options give the same pixels. Runs the Qt event loop while the light families
// build. Main thread.
namespace OfflineRender {

struct Options {
    QString sceneDir;
    QString framing;  // empty: the first in the preferred order
    int width = 1920;
    int height = 1080;
    QString output;
    // Light: a fixed preset, else the clock blend at `localTime`.
    std::optional<QString> preset;
    QDateTime localTime = QDateTime(QDate(2024, 6, 1), QTime(12, 0));
    // What plays.
    bool playing = false;
    QString album, artist, title;
    int trackNumber = 0, trackCount = 0;
    double duration = 0, position = 0;
    QString coverImage;       // empty: the placeholder cover
    QString stackCoverImage;  // an album played before; empty: the placeholder cover
    // Effects.
    double rain = 0;  // 0…1
    bool steam = true;
    bool fxRecord = true, fxBounce = true, fxStack = true, fxPanel = true, fxWeather = true;
    // The tonearm sits at its goal yaw, lifted by this much: 0 = needle down … 1 = fully lifted.
    double armLift = 0;
    // Media time of the frame (drives spin phase, rain and steam).
    double mediaTime = 30;
};

// Empty on success; otherwise the reason (also logged).
QString render(const Options &options);

}  // namespace OfflineRender
