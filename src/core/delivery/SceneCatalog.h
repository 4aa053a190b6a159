#pragma once

#include "core/delivery/DeliveryError.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QString>
#include <optional>
#include <stdexcept>

// The content service's list of scene packages: base scenes and extra framings, each a zip
// archive with its size and SHA-256 digest. Value type; the order of `scenes` is the server's
// order of preference.
struct SceneCatalog {
    struct Entry {
        QString id;
        QString title;
        QString file;     // a safe single file name on the service and on disk
        qint64 size = 0;  // package bytes
        QString sha256;   // 64 hex digits, either case
        std::optional<QString> minAppVersion;
        std::optional<QString> scene;
        std::optional<QString> framing;
        std::optional<bool> base;
        // Bytes the package may unpack to ("unpacked_size"), written by turnelo-publish. When
        // absent the installer allows a multiple of `size` (see SceneUnpacker).
        std::optional<qint64> unpackedSize;

        bool isBase() const;
        // Encoded with the catalog's own keys; absent optionals are left out.
        QJsonObject toJson() const;
        static Entry fromJson(const QJsonObject &object);  // throws DeliveryError (catalog)
        bool operator==(const Entry &) const = default;
    };

    enum class Order { ascending, same, descending };

    int version = 0;
    QList<Entry> scenes;

    // Throws DeliveryError (catalog) for malformed JSON, a missing or mistyped required key, or a
    // format version other than 1.
    static SceneCatalog parse(const QByteArray &data);
    QByteArray serialize() const;

    // Dotted version comparison: pieces that are not numbers count as 0, missing pieces as 0,
    // so "1.2" == "1.2.0" and "1.10" > "1.9".
    static Order compare(const QString &a, const QString &b);
    // The pattern that `file` and `framing` must match: no separators, no leading dot, ≤ 128.
    static bool isSafeName(const QString &name);

    // Entries that this application version can use, in catalog order.
    QList<Entry> usable(const QString &appVersion) const;
    // The first usable base scene.
    std::optional<Entry> pick(const QString &appVersion) const;
    // Framing name → its usable add-on packages for `base`, in catalog order.
    QMap<QString, QList<Entry>> framings(const Entry &base, const QString &appVersion) const;

    bool operator==(const SceneCatalog &) const = default;
};
