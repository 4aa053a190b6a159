#include "core/app/JsonSettingsFormat.h"

#include "core/app/StateFile.h"

#include <QFile>
#include <QIODevice>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cmath>

namespace JsonSettingsFormat {

namespace {

const QString realTag = QStringLiteral("$real");

bool readJson(QIODevice &device, QSettings::SettingsMap &map)
{
    const QByteArray bytes = device.readAll();
    if (bytes.trimmed().isEmpty()) return true;
    QJsonParseError error;
    QJsonDocument doc = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) {
        // A damaged file still gives the keys before the damage; the file itself is kept aside.
        // Reporting success keeps QSettings writing: the next change replaces the file whole.
        const auto rescued = error.error != QJsonParseError::NoError ? StateFile::salvage(bytes) : std::nullopt;
        doc = rescued && rescued->isObject() ? *rescued : QJsonDocument(QJsonObject());
        const QString reason = error.error != QJsonParseError::NoError
                                   ? QStringLiteral("JSON ilegível no byte %1").arg(error.offset)
                                   : QStringLiteral("não é um objeto JSON");
        if (auto *file = qobject_cast<QFile *>(&device))
            StateFile::reportDamaged(file->fileName(), reason, !doc.object().isEmpty());
    }
    const QJsonObject root = doc.object();
    for (auto it = root.begin(); it != root.end(); ++it) map.insert(it.key(), fromJson(it.value()));
    return true;
}

bool writeJson(QIODevice &device, const QSettings::SettingsMap &map) { return device.write(encode(map)) >= 0; }

}  // namespace

QByteArray encode(const QSettings::SettingsMap &map)
{
    QJsonObject root;
    for (auto it = map.begin(); it != map.end(); ++it) root.insert(it.key(), toJson(it.value()));
    return QJsonDocument(root).toJson(QJsonDocument::Indented);
}

QVariant fromJson(const QJsonValue &value)
{
    if (value.isObject()) {
        const QJsonObject object = value.toObject();
        if (object.size() == 1 && object.contains(realTag) && object.value(realTag).isDouble())
            return QVariant(object.value(realTag).toDouble());
        QVariantMap map;
        for (auto it = object.begin(); it != object.end(); ++it) map.insert(it.key(), fromJson(it.value()));
        return map;
    }
    if (value.isArray()) {
        QVariantList list;
        for (const QJsonValue &item : value.toArray()) list.append(fromJson(item));
        return list;
    }
    const QVariant plain = value.toVariant();
    if (plain.typeId() == QMetaType::Int) return QVariant(plain.toLongLong());  // one integer type, whatever its size
    return plain;
}

QJsonValue toJson(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Double:
    case QMetaType::Float: {
        const double d = value.toDouble();
        if (std::isfinite(d) && d == std::trunc(d)) return QJsonObject{{realTag, d}};
        return d;
    }
    case QMetaType::QVariantMap: {
        QJsonObject object;
        const QVariantMap map = value.toMap();
        for (auto it = map.begin(); it != map.end(); ++it) object.insert(it.key(), toJson(it.value()));
        return object;
    }
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
        QJsonArray array;
        for (const QVariant &item : value.toList()) array.append(toJson(item));
        return array;
    }
    default:
        return QJsonValue::fromVariant(value);
    }
}

QSettings::Format format()
{
    static const QSettings::Format registered =
        QSettings::registerFormat(QStringLiteral("json"), readJson, writeJson, Qt::CaseSensitive);
    return registered;
}

}  // namespace JsonSettingsFormat
