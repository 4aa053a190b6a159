#pragma once

#include <QString>
#include <stdexcept>
#include <string>

// An error that says what kind of failure it was and, in `what()`, the text to log: the shape of
// each core layer's one error type.
template <typename KindType> struct KindedError : std::runtime_error {
    using Kind = KindType;
    KindedError(Kind kind, const std::string &message)
        : std::runtime_error(message)
        , kind(kind)
    {
    }
    KindedError(Kind kind, const QString &message)
        : KindedError(kind, message.toStdString())
    {
    }
    KindedError(Kind kind, const char *message)
        : KindedError(kind, std::string(message))
    {
    }
    QString description() const { return QString::fromUtf8(what()); }

    Kind kind;
};
