#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <functional>
#include <stdexcept>

// Writes a complete synthetic scene package (manifest, light plates, record passes, bounce light,
// tonearm sprites, masks and maps, front layers) for development and tests. The same options give
// the same bytes. Runs on the calling thread and uses the global thread pool for the pixels.
class SceneGenerator {
public:
    struct Options {
        QString out;  // scene root; created when missing
        int width = 1920;
        int height = 1080;
        QStringList framings{"wide", "mid"};  // names from knownFramings()
        quint32 seed = 1;                     // varies textures, clouds and skyline
        QString preview;                      // optional PNG of the "dia" light of the first framing
    };

    struct Summary {
        QStringList framings;
        int lightPlates = 0;  // per framing
        int files = 0;
        qint64 bytes = 0;
        double seconds = 0;
        QJsonObject toJson(const QString &out) const;
    };

    struct Error : std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    // A line of progress for the user ("wide: light 50%").
    using Progress = std::function<void(const QString &)>;

    // Throws Error for bad options and for files that cannot be written.
    static Summary generate(const Options &options, const Progress &progress = {});

    static QStringList knownFramings();
};
