#include "core/scene/PlateManifest.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <cmath>
#include <functional>

namespace {

[[noreturn]] void fail(const QString &path, const QString &problem)
{
    throw SceneError(SceneError::Kind::badManifest,
                     (path.isEmpty() ? problem : path + QStringLiteral(": ") + problem).toStdString());
}

QString kindOf(const QJsonValue &v)
{
    switch (v.type()) {
    case QJsonValue::Null:
        return QStringLiteral("null");
    case QJsonValue::Bool:
        return QStringLiteral("booleano");
    case QJsonValue::Double:
        return QStringLiteral("número");
    case QJsonValue::String:
        return QStringLiteral("texto");
    case QJsonValue::Array:
        return QStringLiteral("lista");
    case QJsonValue::Object:
        return QStringLiteral("objeto");
    default:
        return QStringLiteral("nada");
    }
}

[[noreturn]] void wrongType(const QString &path, const char *expected, const QJsonValue &found)
{
    fail(path, QStringLiteral("esperava %1, achei %2").arg(QLatin1String(expected), kindOf(found)));
}

QString join(const QString &path, const QString &name)
{
    return path.isEmpty() ? name : path + QLatin1Char('.') + name;
}

// sun_keys → sunKeys; keys without an underscore are kept as they are.
QString camelFromSnake(const QString &key)
{
    if (!key.contains(QLatin1Char('_'))) return key;
    int start = 0;
    while (start < key.size() && key[start] == QLatin1Char('_')) ++start;
    int end = key.size();
    while (end > start && key[end - 1] == QLatin1Char('_')) --end;
    if (start == end) return key;
    const QStringList words = key.mid(start, end - start).split(QLatin1Char('_'), Qt::SkipEmptyParts);
    QString out = key.left(start) + words.value(0);
    for (qsizetype i = 1; i < words.size(); ++i) out += words[i].left(1).toUpper() + words[i].mid(1).toLower();
    return out + key.mid(end);
}

double number(const QJsonValue &v, const QString &path)
{
    if (!v.isDouble()) wrongType(path, "número", v);
    return v.toDouble();
}

long long integer(const QJsonValue &v, const QString &path)
{
    if (!v.isDouble()) wrongType(path, "inteiro", v);
    const double d = v.toDouble();
    if (d != std::trunc(d) || std::abs(d) > 9.007199254740992e15)
        fail(path, QStringLiteral("esperava inteiro, achei %1").arg(d));
    return static_cast<long long>(d);
}

QString text(const QJsonValue &v, const QString &path)
{
    if (!v.isString()) wrongType(path, "texto", v);
    return v.toString();
}

bool boolean(const QJsonValue &v, const QString &path)
{
    if (!v.isBool()) wrongType(path, "booleano", v);
    return v.toBool();
}

QJsonArray array(const QJsonValue &v, const QString &path)
{
    if (!v.isArray()) wrongType(path, "lista", v);
    return v.toArray();
}

QJsonObject object(const QJsonValue &v, const QString &path)
{
    if (!v.isObject()) wrongType(path, "objeto", v);
    return v.toObject();
}

std::vector<double> numbers(const QJsonValue &v, const QString &path, qsizetype atLeast = 0)
{
    const QJsonArray a = array(v, path);
    if (a.size() < atLeast) fail(path, QStringLiteral("esperava %1 números, achei %2").arg(atLeast).arg(a.size()));
    std::vector<double> out;
    out.reserve(a.size());
    for (qsizetype i = 0; i < a.size(); ++i) out.push_back(number(a[i], path + QStringLiteral("[%1]").arg(i)));
    return out;
}

template <size_t N> std::array<double, N> fixed(const QJsonValue &v, const QString &path)
{
    const auto all = numbers(v, path, N);
    std::array<double, N> out{};
    std::copy_n(all.begin(), N, out.begin());
    return out;
}

QStringList strings(const QJsonValue &v, const QString &path)
{
    const QJsonArray a = array(v, path);
    QStringList out;
    for (qsizetype i = 0; i < a.size(); ++i) out.append(text(a[i], path + QStringLiteral("[%1]").arg(i)));
    return out;
}

PlateManifest::Quad quad(const QJsonValue &v, const QString &path)
{
    const QJsonArray a = array(v, path);
    if (a.size() < 4) fail(path, QStringLiteral("esperava 4 pontos, achei %1").arg(a.size()));
    PlateManifest::Quad q{};
    for (int i = 0; i < 4; ++i) q[i] = fixed<2>(a[i], path + QStringLiteral("[%1]").arg(i));
    return q;
}

// The fields of one manifest object, keys converted to field names. Absent and null fields are
// both "not there" for optional members; a required one must be there and not null.
class Fields {
public:
    Fields(const QJsonValue &v, QString path)
        : path(std::move(path))
    {
        const QJsonObject o = object(v, this->path);
        for (auto it = o.begin(); it != o.end(); ++it) values.insert(camelFromSnake(it.key()), it.value());
    }

    template <typename F> auto required(const char *name, F parse) const
    {
        const QString field = QLatin1String(name);
        const QJsonValue v = values.value(field, QJsonValue(QJsonValue::Undefined));
        if (v.isUndefined() || v.isNull()) fail(join(path, field), QStringLiteral("campo obrigatório ausente"));
        return parse(v, join(path, field));
    }

    template <typename F>
    auto optional(const char *name, F parse) const -> std::optional<decltype(parse(QJsonValue(), QString()))>
    {
        const QString field = QLatin1String(name);
        const QJsonValue v = values.value(field, QJsonValue(QJsonValue::Undefined));
        if (v.isUndefined() || v.isNull()) return std::nullopt;
        return parse(v, join(path, field));
    }

private:
    QString path;
    QHash<QString, QJsonValue> values;
};

const auto asNumber = [](const QJsonValue &v, const QString &p) { return number(v, p); };
const auto asText = [](const QJsonValue &v, const QString &p) { return text(v, p); };
const auto asBool = [](const QJsonValue &v, const QString &p) { return boolean(v, p); };
const auto asStrings = [](const QJsonValue &v, const QString &p) { return strings(v, p); };
const auto asQuad = [](const QJsonValue &v, const QString &p) { return quad(v, p); };
const auto asVec2 = [](const QJsonValue &v, const QString &p) { return fixed<2>(v, p); };
const auto asVec3 = [](const QJsonValue &v, const QString &p) { return fixed<3>(v, p); };
const auto asRect = [](const QJsonValue &v, const QString &p) { return fixed<4>(v, p); };

PlateManifest::Surface surface(const QJsonValue &v, const QString &path)
{
    const Fields f(v, path);
    return {f.required("corners", asQuad), f.required("mask", asText)};
}

PlateManifest::Record record(const QJsonValue &v, const QString &path)
{
    const Fields f(v, path);
    PlateManifest::Record r;
    r.corners = f.required("corners", asQuad);
    r.centerWorld = f.required("centerWorld", asVec3);
    r.radiusMm = f.required("radiusMm", asNumber);
    r.labelRadiusMm = f.required("labelRadiusMm", asNumber);
    r.grooveOuterMm = f.required("grooveOuterMm", asNumber);
    r.grooveInnerMm = f.required("grooveInnerMm", asNumber);
    r.bbox = f.required("bbox", asRect);
    r.mask = f.required("mask", asText);
    return r;
}

PlateManifest::Tonearm tonearm(const QJsonValue &v, const QString &path)
{
    const Fields f(v, path);
    PlateManifest::Tonearm t;
    t.pivot = f.required("pivot", asVec3);
    t.yawAxis = f.required("yawAxis", asVec3);
    t.liftAxis = f.required("liftAxis", asVec3);
    t.yawRest = f.required("yawRest", asNumber);
    t.yawLeadIn = f.required("yawLeadIn", asNumber);
    t.yawRunOut = f.required("yawRunOut", asNumber);
    t.liftMax = f.required("liftMax", asNumber);
    t.planeZ = f.optional("planeZ", asNumber);
    t.yawSamples = f.required("yawSamples", [](const QJsonValue &x, const QString &p) { return numbers(x, p); });
    t.bbox = f.required("bbox", asRect);
    t.shadow = f.optional("shadow", asBool);
    t.reflection = f.optional("reflection", asBool);
    t.reflectionBbox = f.optional("reflectionBbox", asRect);
    return t;
}

PlateManifest::LED led(const QJsonValue &v, const QString &path)
{
    const Fields f(v, path);
    return {f.required("centerPx", asVec2), f.required("radiusPx", asNumber), f.required("color", asVec3)};
}

PlateManifest::Panel panel(const QJsonValue &v, const QString &path)
{
    const Fields f(v, path);
    PlateManifest::Panel p;
    p.led33 = f.optional("led33", led);
    p.led45 = f.optional("led45", led);
    p.strobe = f.optional("strobe", [](const QJsonValue &x, const QString &q) {
        const Fields s(x, q);
        return PlateManifest::Strobe{s.required("mask", asText), s.required("dots", asNumber),
                                     s.required("color", asVec3)};
    });
    return p;
}

PlateManifest::Framing framing(const QJsonValue &v, const QString &path)
{
    const Fields f(v, path);
    PlateManifest::Framing fr;
    fr.size = f.required("size", asVec2);
    fr.camera = f.required("camera", [](const QJsonValue &x, const QString &p) {
        const Fields c(x, p);
        return c.required("P", [](const QJsonValue &rows, const QString &q) {
            const QJsonArray a = array(rows, q);
            if (a.size() < 3) fail(q, QStringLiteral("esperava 3 linhas, achei %1").arg(a.size()));
            PlateManifest::Camera cam;
            for (int i = 0; i < 3; ++i) cam.P[i] = fixed<4>(a[i], q + QStringLiteral("[%1]").arg(i));
            return cam;
        });
    });
    fr.cover = f.required("cover", surface);
    fr.label = f.required("label", surface);
    fr.tonearm = f.optional("tonearm", tonearm);
    fr.front = f.optional("front", [](const QJsonValue &x, const QString &p) {
        return PlateManifest::Front{Fields(x, p).required("bbox", asRect)};
    });
    fr.steam = f.optional("steam", [](const QJsonValue &x, const QString &p) {
        return PlateManifest::Steam{Fields(x, p).required("pointPx", asVec2)};
    });
    fr.record = f.optional("record", record);
    fr.bounce = f.optional("bounce", [](const QJsonValue &x, const QString &p) {
        return PlateManifest::Crop{Fields(x, p).required("bbox", asRect)};
    });
    fr.panel = f.optional("panel", panel);
    fr.window = f.optional("window", [](const QJsonValue &x, const QString &p) {
        const Fields w(x, p);
        return PlateManifest::Window{w.required("glassMask", asText), w.optional("dustCoverMask", asText),
                                     w.optional("dustCoverTransmission", asNumber)};
    });
    fr.stack = f.optional("stack", [](const QJsonValue &x, const QString &p) {
        const Fields s(x, p);
        return PlateManifest::Stack{s.required("artUv", asText), s.required("bbox", asRect)};
    });
    return fr;
}

}  // namespace

PlateManifest PlateManifest::decode(const QByteArray &json)
{
    QJsonParseError parseError;
    const QJsonDocument doc = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError)
        fail({},
             QStringLiteral("JSON ilegível na posição %1: %2").arg(parseError.offset).arg(parseError.errorString()));
    if (!doc.isObject()) fail({}, QStringLiteral("esperava um objeto no topo"));

    const Fields f(doc.object(), {});
    PlateManifest m;
    m.contract = f.required("contract", [](const QJsonValue &v, const QString &p) { return integer(v, p); });
    m.sunKeys = f.required("sunKeys", asStrings);
    m.groups = f.required("groups", asStrings);
    m.perPresetGroups = f.optional("perPresetGroups", asStrings);
    m.view = f.optional("view", [](const QJsonValue &v, const QString &p) {
        return ViewExtension{Fields(v, p).optional("keys", asStrings)};
    });
    m.scenario = f.optional("scenario", asText);
    m.tonemap = f.optional("tonemap", [](const QJsonValue &v, const QString &p) {
        const Fields t(v, p);
        return Tonemap{t.optional("contrast", asNumber), t.optional("offset", asNumber), t.optional("gamma", asNumber)};
    });
    m.showcase = f.optional("showcase", [](const QJsonValue &v, const QString &p) {
        const Fields s(v, p);
        return Showcase{s.optional("floor", asNumber), s.optional("maxGain", asNumber),
                        s.optional("artFloor", asNumber), s.optional("darkMaxGain", asNumber)};
    });
    // Map keys are names, kept verbatim.
    m.presets = f.required("presets", [](const QJsonValue &v, const QString &p) {
        std::map<QString, Preset> presets;
        const QJsonObject all = object(v, p);
        for (auto it = all.begin(); it != all.end(); ++it) {
            Preset preset;
            const QJsonObject keys = object(it.value(), join(p, it.key()));
            for (auto k = keys.begin(); k != keys.end(); ++k) preset.emplace(k.key(), JSONValue::decode(k.value()));
            presets[it.key()] = std::move(preset);
        }
        return presets;
    });
    m.clock = f.required("clock", [](const QJsonValue &v, const QString &p) {
        std::vector<QStringList> clock;
        const QJsonArray entries = array(v, p);
        for (qsizetype i = 0; i < entries.size(); ++i)
            clock.push_back(strings(entries[i], p + QStringLiteral("[%1]").arg(i)));
        return clock;
    });
    m.framings = f.required("framings", [](const QJsonValue &v, const QString &p) {
        std::map<QString, Framing> framings;
        const QJsonObject all = object(v, p);
        for (auto it = all.begin(); it != all.end(); ++it) framings[it.key()] = framing(it.value(), join(p, it.key()));
        return framings;
    });
    return m;
}

const QStringList &PlateManifest::canonicalPresets()
{
    static const QStringList names{QStringLiteral("manha"), QStringLiteral("dia"), QStringLiteral("tarde"),
                                   QStringLiteral("noite")};
    return names;
}

QStringList PlateManifest::presetOrder() const
{
    QStringList order;
    for (const QString &name : canonicalPresets())
        if (presets.count(name)) order.append(name);
    QStringList others;
    for (const auto &[name, preset] : presets)
        if (!canonicalPresets().contains(name)) others.append(name);
    std::sort(others.begin(), others.end());  // plain code-unit order
    return order + others;
}

QString PlateManifest::framingDisplayName(const QString &key)
{
    static const std::map<QString, QString> known{{QStringLiteral("wide"), QStringLiteral("Wide")},
                                                  {QStringLiteral("mid"), QStringLiteral("Medium")},
                                                  {QStringLiteral("close"), QStringLiteral("Close")},
                                                  {QStringLiteral("top"), QStringLiteral("Top-down")}};
    if (const auto it = known.find(key); it != known.end()) return it->second;
    QString out = key.toLower();
    bool wordStart = true;
    for (QChar &c : out) {
        if (wordStart && c.isLetter()) c = c.toUpper();
        wordStart = !c.isLetterOrNumber();
    }
    return out;
}
