#pragma once

#include <QString>
#include <stdexcept>
#include <string>

// The delivery layer's one error: why a catalog, a package or a move on disk was refused.
// `what()` is the text to log.
struct DeliveryError : std::runtime_error {
    enum class Kind {
        catalog,  // the catalog (or a record written from it) does not read as one
        package,  // the package is refused: its archive, its entries or its claimed size
        disk,     // reading, writing or moving the installed room failed, or a checksum did not match
    };
    DeliveryError(Kind kind, const std::string &message)
        : std::runtime_error(message)
        , kind(kind)
    {
    }
    DeliveryError(Kind kind, const QString &message)
        : DeliveryError(kind, message.toStdString())
    {
    }
    DeliveryError(Kind kind, const char *message)
        : DeliveryError(kind, std::string(message))
    {
    }
    QString description() const { return QString::fromUtf8(what()); }

    Kind kind;
};
