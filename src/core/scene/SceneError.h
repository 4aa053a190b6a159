#pragma once

#include <QString>
#include <stdexcept>
#include <string>

// The scene layer's one error: what is wrong with a room on disk. `what()` is the text to log.
struct SceneError : std::runtime_error {
    enum class Kind {
        noManifest,   // the folder has no manifest.json
        badManifest,  // it does not decode, or it is too large to be one
        badPlate,     // a plate or mask is missing, unreadable, damaged or of the wrong size
    };
    SceneError(Kind kind, const std::string &message)
        : std::runtime_error(message)
        , kind(kind)
    {
    }
    SceneError(Kind kind, const QString &message)
        : SceneError(kind, message.toStdString())
    {
    }
    SceneError(Kind kind, const char *message)
        : SceneError(kind, std::string(message))
    {
    }
    QString description() const { return QString::fromUtf8(what()); }

    Kind kind;
};
