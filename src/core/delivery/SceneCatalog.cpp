#include "core/delivery/SceneCatalog.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <cmath>

namespace {

[[noreturn]] void missing(const QString &key, const QString &where)
{
    throw DeliveryError(DeliveryError::Kind::catalog,
                        QStringLiteral("%1: chave \"%2\" ausente ou com tipo errado").arg(where, key).toStdString());
}

QString requiredText(const QJsonObject &o, const QString &key, const QString &where)
{
    const QJsonValue v = o.value(key);
    if (!v.isString()) missing(key, where);
    return v.toString();
}

std::optional<QString> optionalText(const QJsonObject &o, const QString &key, const QString &where)
{
    const QJsonValue v = o.value(key);
    if (v.isUndefined() || v.isNull()) return std::nullopt;
    if (!v.isString()) missing(key, where);
    return v.toString();
}

// JSON numbers arrive as doubles; only whole values within 2^53 are accepted as integers.
std::optional<qint64> integerOf(const QJsonValue &v)
{
    if (!v.isDouble()) return std::nullopt;
    const double d = v.toDouble();
    if (d != std::floor(d) || std::abs(d) > 9007199254740992.0) return std::nullopt;
    return qint64(d);
}

qint64 requiredInteger(const QJsonObject &o, const QString &key, const QString &where)
{
    const auto n = integerOf(o.value(key));
    if (!n) missing(key, where);
    return *n;
}

bool isHexDigest(const QString &s)
{
    if (s.size() != 64) return false;
    for (QChar c : s) {
        const char16_t u = c.unicode();
        if (!((u >= '0' && u <= '9') || (u >= 'a' && u <= 'f') || (u >= 'A' && u <= 'F'))) return false;
    }
    return true;
}

}  // namespace

bool SceneCatalog::Entry::isBase() const
{
    if (base) return *base;
    return !framing.has_value();
}

QJsonObject SceneCatalog::Entry::toJson() const
{
    QJsonObject o;
    o.insert(QStringLiteral("id"), id);
    o.insert(QStringLiteral("title"), title);
    o.insert(QStringLiteral("file"), file);
    o.insert(QStringLiteral("size"), double(size));
    o.insert(QStringLiteral("sha256"), sha256);
    if (minAppVersion) o.insert(QStringLiteral("min_app_version"), *minAppVersion);
    if (scene) o.insert(QStringLiteral("scene"), *scene);
    if (framing) o.insert(QStringLiteral("framing"), *framing);
    if (base) o.insert(QStringLiteral("base"), *base);
    if (unpackedSize) o.insert(QStringLiteral("unpacked_size"), double(*unpackedSize));
    return o;
}

SceneCatalog::Entry SceneCatalog::Entry::fromJson(const QJsonObject &o)
{
    const QString where = QStringLiteral("scenes[%1]").arg(o.value(QStringLiteral("id")).toString());
    Entry e;
    e.id = requiredText(o, QStringLiteral("id"), where);
    e.title = requiredText(o, QStringLiteral("title"), where);
    e.file = requiredText(o, QStringLiteral("file"), where);
    e.size = requiredInteger(o, QStringLiteral("size"), where);
    e.sha256 = requiredText(o, QStringLiteral("sha256"), where);
    e.minAppVersion = optionalText(o, QStringLiteral("min_app_version"), where);
    e.scene = optionalText(o, QStringLiteral("scene"), where);
    e.framing = optionalText(o, QStringLiteral("framing"), where);
    const QJsonValue base = o.value(QStringLiteral("base"));
    if (base.isBool())
        e.base = base.toBool();
    else if (!base.isUndefined() && !base.isNull())
        missing(QStringLiteral("base"), where);
    const QJsonValue unpacked = o.value(QStringLiteral("unpacked_size"));
    if (!unpacked.isUndefined() && !unpacked.isNull()) {
        e.unpackedSize = integerOf(unpacked);
        if (!e.unpackedSize) missing(QStringLiteral("unpacked_size"), where);
    }
    return e;
}

SceneCatalog SceneCatalog::parse(const QByteArray &data)
{
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError)
        throw DeliveryError(
            DeliveryError::Kind::catalog,
            QStringLiteral("JSON inválido no offset %1: %2").arg(error.offset).arg(error.errorString()).toStdString());
    if (!doc.isObject()) throw DeliveryError(DeliveryError::Kind::catalog, "o manifesto de cenas não é um objeto JSON");
    const QJsonObject root = doc.object();
    SceneCatalog catalog;
    const auto version = integerOf(root.value(QStringLiteral("version")));
    if (!version) missing(QStringLiteral("version"), QStringLiteral("manifesto de cenas"));
    if (*version != 1)
        throw DeliveryError(DeliveryError::Kind::catalog,
                            QStringLiteral("manifesto de cenas versão %1").arg(*version).toStdString());
    catalog.version = int(*version);
    const QJsonValue scenes = root.value(QStringLiteral("scenes"));
    if (!scenes.isArray()) missing(QStringLiteral("scenes"), QStringLiteral("manifesto de cenas"));
    for (const QJsonValue &v : scenes.toArray()) {
        if (!v.isObject())
            throw DeliveryError(DeliveryError::Kind::catalog, "manifesto de cenas: entrada que não é um objeto");
        catalog.scenes.append(Entry::fromJson(v.toObject()));
    }
    return catalog;
}

QByteArray SceneCatalog::serialize() const
{
    QJsonArray list;
    for (const Entry &e : scenes) list.append(e.toJson());
    QJsonObject root;
    root.insert(QStringLiteral("version"), version);
    root.insert(QStringLiteral("scenes"), list);
    return QJsonDocument(root).toJson(QJsonDocument::Indented);
}

SceneCatalog::Order SceneCatalog::compare(const QString &a, const QString &b)
{
    const auto pieces = [](const QString &s) {
        QList<qlonglong> out;
        for (const QString &p : s.split(QLatin1Char('.'), Qt::SkipEmptyParts)) {
            bool ok = false;
            const qlonglong n = p.toLongLong(&ok, 10);
            out.append(ok ? n : 0);
        }
        return out;
    };
    const QList<qlonglong> x = pieces(a), y = pieces(b);
    for (qsizetype i = 0; i < std::max(x.size(), y.size()); ++i) {
        const qlonglong l = i < x.size() ? x[i] : 0, r = i < y.size() ? y[i] : 0;
        if (l < r) return Order::ascending;
        if (l > r) return Order::descending;
    }
    return Order::same;
}

bool SceneCatalog::isSafeName(const QString &name)
{
    // Anchored on the whole string: a bare "$" would also match before a final newline.
    static const QRegularExpression pattern(
        QRegularExpression::anchoredPattern(QStringLiteral("[A-Za-z0-9][A-Za-z0-9._-]{0,127}")));
    return pattern.match(name).hasMatch();
}

QList<SceneCatalog::Entry> SceneCatalog::usable(const QString &appVersion) const
{
    QList<Entry> out;
    for (const Entry &e : scenes) {
        if (!isSafeName(e.file) || e.size < 1 || !isHexDigest(e.sha256)) continue;
        if (compare(e.minAppVersion.value_or(QStringLiteral("0")), appVersion) == Order::descending) continue;
        if (e.framing && !isSafeName(*e.framing)) continue;
        out.append(e);
    }
    return out;
}

std::optional<SceneCatalog::Entry> SceneCatalog::pick(const QString &appVersion) const
{
    for (const Entry &e : usable(appVersion))
        if (e.isBase()) return e;
    return std::nullopt;
}

QMap<QString, QList<SceneCatalog::Entry>> SceneCatalog::framings(const Entry &base, const QString &appVersion) const
{
    QMap<QString, QList<Entry>> out;
    for (const Entry &e : usable(appVersion))
        if (!e.isBase() && e.framing && e.scene == base.scene) out[*e.framing].append(e);
    return out;
}
