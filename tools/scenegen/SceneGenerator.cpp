#include "SceneGenerator.h"

#include "Room.h"
#include "RoomCamera.h"
#include "PlateWriter.h"

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>
#include <QThread>
#include <QtConcurrent/QtConcurrentMap>

#include <ImfThreading.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numbers>
#include <numeric>

namespace {

constexpr double pi = std::numbers::pi;

const QStringList canonical{"manha", "dia", "tarde", "noite"};
const QStringList sunKeys{"morning", "noon", "evening"};
const QStringList groups{"sun", "sky", "room", "lamp"};
const QStringList perPresetGroups{"sky"};
const QString scenario = "desk";
const std::vector<double> yawSamples{0, 6, 12, 18, 24, 30, 36};

struct CameraSetup {
    Vec3 eye, target;
    double fovX;
};

const std::map<QString, CameraSetup> &cameraSetups()
{
    static const std::map<QString, CameraSetup> setups{
        {"wide", {{-250, -1750, 780}, {-200, 150, 250}, 62}},
        {"mid", {{-20, -1000, 560}, {-30, 80, 200}, 52}},
        {"close", {{-40, -560, 420}, {-40, 60, 100}, 46}},
        {"top", {{-40, -100, 1200}, {-40, 40, 100}, 55}},
    };
    return setups;
}

QJsonArray arr(std::initializer_list<double> values)
{
    QJsonArray a;
    for (double v : values) a.append(v);
    return a;
}

QJsonArray vec(const Vec3 &v) { return arr({v.x, v.y, v.z}); }

// Rounds for the manifest so that the text stays short and stable.
double r4(double v) { return std::round(v * 1e4) / 1e4; }

struct Rect {
    int x = 0, y = 0, w = 0, h = 0;
    bool empty() const { return w <= 0 || h <= 0; }
    bool contains(int px, int py) const { return px >= x && py >= y && px < x + w && py < y + h; }
    QJsonArray json() const { return arr({double(x), double(y), double(w), double(h)}); }
};

// Bounding rectangle of projected points (in front of the camera), widened and clamped to the plate.
Rect boundsOf(const RoomCamera &cam, const std::vector<Vec3> &points, int margin)
{
    double x0 = 1e300, y0 = 1e300, x1 = -1e300, y1 = -1e300;
    for (const Vec3 &p : points) {
        double depth = 0;
        const auto uv = cam.project(p, &depth);
        if (depth <= 1) continue;
        x0 = std::min(x0, uv[0]);
        y0 = std::min(y0, uv[1]);
        x1 = std::max(x1, uv[0]);
        y1 = std::max(y1, uv[1]);
    }
    if (x0 > x1) return {};
    Rect r;
    r.x = std::clamp(int(std::floor(x0)) - margin, 0, cam.width());
    r.y = std::clamp(int(std::floor(y0)) - margin, 0, cam.height());
    r.w = std::clamp(int(std::ceil(x1)) + margin, 0, cam.width()) - r.x;
    r.h = std::clamp(int(std::ceil(y1)) + margin, 0, cam.height()) - r.y;
    return r;
}

double pixelHash(int x, int y, quint32 seed)
{
    uint32_t h = uint32_t(x) * 0x8da6b343u ^ uint32_t(y) * 0xd8163841u ^ (seed + 1) * 0x9e3779b9u;
    h ^= h >> 16;
    h *= 0x7feb352du;
    h ^= h >> 15;
    h *= 0x846ca68bu;
    h ^= h >> 16;
    return h / 4294967296.0;
}

Imf::Rgba toHalf(const Vec3 &c, double a = 1)
{
    return Imf::Rgba(half(float(c.x)), half(float(c.y)), half(float(c.z)), half(float(a)));
}

uint8_t toByte(double v) { return uint8_t(std::lround(clamp01(v) * 255)); }

// ---- Presets and recipes ----

QJsonObject recordLight(const Room &room, int sunKey, const Vec3 &colour)
{
    const Vec3 d = room.keyLightDirection(sunKey);
    QJsonObject o;
    o["azimuth_deg"] = r4(std::atan2(d.y, d.x) * 180 / pi);
    o["elevation_deg"] = r4(std::asin(std::clamp(d.z, -1.0, 1.0)) * 180 / pi);
    o["color"] = arr({colour.x, colour.y, colour.z});
    return o;
}

QJsonObject presetsJson(const Room &room)
{
    QJsonObject manha{{"exposure", 0.25},     {"exposure_by_scenario", QJsonObject{{"desk", 0.1}, {"shelf", -0.2}}},
                      {"sun_key", "morning"}, {"sun", arr({1.0, 0.93, 0.85})},
                      {"room", 0.12},         {"vignette", 0.18},
                      {"grain", 0.012},       {"record_light", recordLight(room, 0, {1.0, 0.9, 0.78})}};
    QJsonObject dia{{"exposure", -0.1},  {"exposure_by_scenario", QJsonObject{{"desk", 0.0}}},
                    {"sun_key", "noon"}, {"sun", 1.0},
                    {"room", 0.04},      {"vignette", 0.15},
                    {"grain", 0.01},     {"record_light", recordLight(room, 1, {1.0, 0.97, 0.92})}};
    QJsonObject tarde{{"exposure", 0.0},
                      {"exposure_by_scenario", QJsonObject{{"desk", 0.05}}},
                      {"sun_key", "evening"},
                      {"sun", arr({1.0, 0.86, 0.7})},
                      {"sky_key", "dia"},
                      {"sky", arr({0.85, 0.72, 0.6})},
                      {"lamp", 0.3},
                      {"room", 0.1},
                      {"vignette", 0.2},
                      {"grain", 0.014},
                      {"record_light", recordLight(room, 2, {1.0, 0.68, 0.4})}};
    QJsonObject noite{{"exposure", 0.0}, {"exposure_by_scenario", QJsonObject{{"desk", 0.15}}},
                      {"sun", 0},        {"lamp", arr({0.8, 0.62, 0.45})},
                      {"room", 0.2},     {"vignette", 0.26},
                      {"grain", 0.02},   {"record_light", recordLight(room, -1, {1.0, 0.82, 0.6})}};
    return {{"manha", manha}, {"dia", dia}, {"tarde", tarde}, {"noite", noite}};
}

struct Term {
    QString plate;
    Vec3 weight;
};

// The plates a preset sums and their RGB factors, by the same rules the application's light mixer
// applies to the manifest.
std::vector<Term> recipe(const QString &name, const QJsonObject &d)
{
    double e = d.value("exposure").isDouble() ? d.value("exposure").toDouble() : 0;
    const QJsonValue byScenario = d.value("exposure_by_scenario");
    if (byScenario.isObject() && byScenario.toObject().value(scenario).isDouble())
        e += byScenario.toObject().value(scenario).toDouble();
    const double gain = std::pow(2.0, e);
    const QString sunKey = d.value("sun_key").isString() ? d.value("sun_key").toString() : sunKeys.first();
    QStringList list = groups;
    list.prepend("view");
    std::vector<Term> terms;
    for (const QString &g : list) {
        const double def = perPresetGroups.contains(g) || g == "view" ? 1 : 0;
        Vec3 rgb{def, def, def};
        const QJsonValue v = d.value(g);
        if (v.isDouble())
            rgb = {v.toDouble(), v.toDouble(), v.toDouble()};
        else if (v.isArray() && v.toArray().size() >= 3)
            rgb = {v.toArray()[0].toDouble(), v.toArray()[1].toDouble(), v.toArray()[2].toDouble()};
        if (rgb.x == 0 && rgb.y == 0 && rgb.z == 0) continue;
        QString plate = g;
        if (g == "sun")
            plate = "sun_" + sunKey;
        else if (perPresetGroups.contains(g) || g == "view")
            plate = g + "_" + (d.value(g + "_key").isString() ? d.value(g + "_key").toString() : name);
        terms.push_back({plate, rgb * gain});
    }
    return terms;
}

Room::Light lightOf(const QString &plate)
{
    if (plate.startsWith("sun_")) return {Room::LightKind::sun, int(sunKeys.indexOf(plate.mid(4)))};
    if (plate.startsWith("sky_")) return {Room::LightKind::sky, int(canonical.indexOf(plate.mid(4)))};
    if (plate.startsWith("view_")) return {Room::LightKind::view, int(canonical.indexOf(plate.mid(5)))};
    if (plate == "lamp") return {Room::LightKind::lamp, 0};
    return {Room::LightKind::room, 0};
}

// ---- One framing ----

struct Framing {
    QString name;
    const Room &room;
    RoomCamera cam;
    const QString dir;
    const QJsonObject &presets;
    std::vector<QString> plates;                   // every light plate, sorted
    std::vector<Room::Light> lights;               // per plate
    std::map<QString, std::vector<Vec3>> weights;  // preset → weight per plate index
    quint32 seed;
    SceneGenerator::Progress progress;

    Rect recordBox, bounceBox, armBox, reflBox, stackBox, frontBox;
    std::vector<uint8_t> coverMask, labelMask, recordMask, glassMask, dustMask, strobeMap, stackMap;
    std::vector<float> preview;  // RGB, when asked for
    bool wantPreview = false;

    Framing(const QString &name, const Room &room, const CameraSetup &setup, int w, int h, const QString &dir,
            const QJsonObject &presets, quint32 seed, SceneGenerator::Progress progress)
        : name(name)
        , room(room)
        , cam(setup.eye, setup.target, setup.fovX, w, h)
        , dir(dir)
        , presets(presets)
        , seed(seed)
        , progress(std::move(progress))
    {
        std::vector<QString> names;
        for (auto it = presets.begin(); it != presets.end(); ++it)
            for (const Term &t : recipe(it.key(), it.value().toObject())) names.push_back(t.plate);
        std::sort(names.begin(), names.end());
        names.erase(std::unique(names.begin(), names.end()), names.end());
        plates = names;
        for (const QString &p : plates) lights.push_back(lightOf(p));
        for (auto it = presets.begin(); it != presets.end(); ++it) {
            std::vector<Vec3> w(plates.size());
            for (const Term &t : recipe(it.key(), it.value().toObject()))
                w[std::find(plates.begin(), plates.end(), t.plate) - plates.begin()] += t.weight;
            weights[it.key()] = w;
        }
    }

    int W() const { return cam.width(); }
    int H() const { return cam.height(); }
    QString file(const QString &rel) const { return dir + "/" + rel; }

    void say(const QString &text) const
    {
        if (progress) progress(name + ": " + text);
    }

    template <typename F> static void parallelRows(int y0, int y1, F f)
    {
        std::vector<int> rows(y1 - y0);
        std::iota(rows.begin(), rows.end(), y0);
        QtConcurrent::blockingMap(rows, [&](int y) { f(y); });
    }

    void computeBoxes()
    {
        const Vec3 c = room.recordCentre();
        std::vector<Vec3> rim;
        for (int i = 0; i < 96; ++i) {
            const double a = 2 * pi * i / 96;
            rim.push_back(c + Vec3{std::cos(a), std::sin(a), 0} * room.recordRadius());
        }
        recordBox = boundsOf(cam, rim, 2);
        bounceBox = boundsOf(cam, room.bounceArea(), 1);
        std::vector<Vec3> arm;
        for (double yaw : yawSamples) {
            for (const Vec3 &q : room.armHull(room.armPose(yaw))) {
                arm.push_back(q);
                // Where the hull's shadow can fall on the plinth top.
                for (const Vec3 &l : room.lightPositionsForBounds()) {
                    const double span = l.z - q.z;
                    if (span > 1) arm.push_back(q + (q - l) * ((q.z - 95) / span));
                }
            }
        }
        armBox = boundsOf(cam, arm, 3);
        reflBox = boundsOf(cam, room.lidCorners(), 1);
    }

    // Light plates, record passes, bounce light, masks and maps: one pass over the plate.
    void renderPlates()
    {
        const int w = W(), h = H();
        const size_t n = size_t(w) * h;
        coverMask.assign(n, 0);
        labelMask.assign(n, 0);
        recordMask.assign(n, 0);
        glassMask.assign(n, 0);
        dustMask.assign(n, 0);
        strobeMap.assign(n * 3, 0);
        stackMap.assign(n * 3, 0);
        if (wantPreview) preview.assign(n * 3, 0);
        const std::vector<Vec3> &previewWeights = weights.at("dia");

        const size_t count = plates.size();
        std::vector<std::unique_ptr<PlateWriter::ExrStream>> streams;
        for (const QString &p : plates)
            streams.push_back(std::make_unique<PlateWriter::ExrStream>(file("light/" + p + ".exr"), w, h, false));
        std::vector<std::vector<Imf::Rgba>> specular(count), diffuse(count), bounce(count);
        for (size_t i = 0; i < count; ++i) {
            specular[i].assign(size_t(recordBox.w) * recordBox.h, toHalf({}, 1));
            diffuse[i].assign(size_t(recordBox.w) * recordBox.h, toHalf({}, 1));
            bounce[i].assign(size_t(bounceBox.w) * bounceBox.h, toHalf({}, 1));
        }

        const int band = 32;
        std::vector<std::vector<Imf::Rgba>> rows(count, std::vector<Imf::Rgba>(size_t(w) * band));
        int reported = 0;
        for (int y0 = 0; y0 < h; y0 += band) {
            const int y1 = std::min(h, y0 + band);
            parallelRows(y0, y1, [&](int y) { renderRow(y, y0, rows, specular, diffuse, bounce, previewWeights); });
            for (size_t i = 0; i < count; ++i) streams[i]->writeRows(rows[i].data(), y1 - y0);
            const int percent = 100 * y1 / h;
            if (percent / 25 > reported) {
                reported = percent / 25;
                say(QString("light plates %1%").arg(percent));
            }
        }
        streams.clear();
        for (size_t i = 0; i < count; ++i) {
            if (!recordBox.empty()) {
                PlateWriter::writeExr(file("record/" + plates[i] + "_spec.exr"), recordBox.w, recordBox.h, specular[i],
                                      false);
                PlateWriter::writeExr(file("record/" + plates[i] + "_diffuse.exr"), recordBox.w, recordBox.h,
                                      diffuse[i], false);
            }
            if (!bounceBox.empty())
                PlateWriter::writeExr(file("bounce/" + plates[i] + ".exr"), bounceBox.w, bounceBox.h, bounce[i], false);
        }
    }

    void renderRow(int y, int y0, std::vector<std::vector<Imf::Rgba>> &rows,
                   std::vector<std::vector<Imf::Rgba>> &specular, std::vector<std::vector<Imf::Rgba>> &diffuse,
                   std::vector<std::vector<Imf::Rgba>> &bounce, const std::vector<Vec3> &previewWeights)
    {
        const int w = W();
        const size_t count = plates.size();
        for (int x = 0; x < w; ++x) {
            const size_t idx = size_t(y) * w + x;
            const Vec3 d = cam.ray(x + 0.5, y + 0.5);
            const Room::Surface s = room.trace(cam.eye(), d);
            const bool throughLid = room.lidDistance(cam.eye(), d) < s.t;
            const double jitter = pixelHash(x, y, seed);
            const bool diffuseSurface = s.part != Room::Part::glass && s.part != Room::Part::none;
            const Room::Factors f = diffuseSurface ? room.factors(s.p, s.n, jitter) : Room::Factors{};
            const bool inRecord =
                recordBox.contains(x, y) && (s.part == Room::Part::record || s.part == Room::Part::label);
            const bool inBounce = bounceBox.contains(x, y) && diffuseSurface;
            const double lidT = throughLid ? 0.86 : 1.0;
            Vec3 previewSum;
            for (size_t i = 0; i < count; ++i) {
                const Vec3 c = room.shade(lights[i], s, d, jitter, f) * lidT;
                rows[i][size_t(y - y0) * w + x] = toHalf(c);
                previewSum += previewWeights[i] * c;
                if (inRecord) {
                    const Vec3 r = d - s.n * (2 * d.dot(s.n));
                    Vec3 e = room.irradiance(lights[i], s.p, s.n, jitter) + room.sleeveRadiance(lights[i]) * f.sleeve;
                    const size_t k = size_t(y - recordBox.y) * recordBox.w + (x - recordBox.x);
                    diffuse[i][k] = toHalf(e);
                    specular[i][k] = toHalf(room.glossy(lights[i], s.p, r, 60) * 0.05);
                }
                if (inBounce && s.part != Room::Part::sleeve) {
                    const size_t k = size_t(y - bounceBox.y) * bounceBox.w + (x - bounceBox.x);
                    bounce[i][k] = toHalf(s.albedo * room.sleeveRadiance(lights[i]) * (f.sleeve / pi * lidT));
                }
            }
            if (wantPreview) {
                preview[idx * 3] = float(previewSum.x);
                preview[idx * 3 + 1] = float(previewSum.y);
                preview[idx * 3 + 2] = float(previewSum.z);
            }
            // Masks and maps from 2 × 2 samples so their edges are soft.
            int cover = 0, label = 0, record = 0, glass = 0, dust = 0, strobe = 0, stack = 0;
            Vec3 strobeLocal, stackLocal;
            for (int k = 0; k < 4; ++k) {
                const Vec3 dk = cam.ray(x + 0.25 + 0.5 * (k & 1), y + 0.25 + 0.5 * (k >> 1));
                const Room::Surface sk = room.trace(cam.eye(), dk);
                cover += sk.part == Room::Part::sleeve;
                label += sk.part == Room::Part::label;
                record += sk.part == Room::Part::label || sk.part == Room::Part::record;
                if (sk.part == Room::Part::glass) {
                    ++glass;
                    dust += room.lidDistance(cam.eye(), dk) < sk.t;
                }
                if (sk.part == Room::Part::platter && std::abs(sk.n.z) < 0.5) {
                    if (strobe++ == 0) strobeLocal = sk.local;
                }
                if (sk.part == Room::Part::stackTop) {
                    if (stack++ == 0) stackLocal = sk.local;
                }
            }
            coverMask[idx] = toByte(cover / 4.0);
            labelMask[idx] = toByte(label / 4.0);
            recordMask[idx] = toByte(record / 4.0);
            glassMask[idx] = toByte(glass / 4.0);
            dustMask[idx] = toByte(dust / 4.0);
            if (strobe) {
                double turn = strobeLocal.x / (2 * pi);
                turn -= std::floor(turn);
                strobeMap[idx * 3] = toByte(turn);
                strobeMap[idx * 3 + 1] = toByte(strobe / 4.0);
                strobeMap[idx * 3 + 2] = toByte(strobeLocal.y);
            }
            if (stack) {
                stackMap[idx * 3] = toByte(stackLocal.x);
                stackMap[idx * 3 + 1] = toByte(stackLocal.y);
                stackMap[idx * 3 + 2] = toByte(stack / 4.0);
            }
        }
    }

    Rect coverage(const std::vector<uint8_t> &map, int stride, int channel) const
    {
        int x0 = W(), y0 = H(), x1 = -1, y1 = -1;
        for (int y = 0; y < H(); ++y)
            for (int x = 0; x < W(); ++x)
                if (map[(size_t(y) * W() + x) * stride + channel]) {
                    x0 = std::min(x0, x);
                    x1 = std::max(x1, x);
                    y0 = std::min(y0, y);
                    y1 = std::max(y1, y);
                }
        if (x1 < 0) return {};
        return {x0, y0, x1 - x0 + 1, y1 - y0 + 1};
    }

    void writeMasks()
    {
        PlateWriter::writeGray(file("masks/cover.png"), W(), H(), coverMask);
        PlateWriter::writeGray(file("masks/label.png"), W(), H(), labelMask);
        PlateWriter::writeGray(file("masks/record.png"), W(), H(), recordMask);
        PlateWriter::writeRgb(file("masks/strobe.png"), W(), H(), strobeMap);
        if (!coverage(glassMask, 1, 0).empty()) {
            PlateWriter::writeGray(file("masks/glass.png"), W(), H(), glassMask);
            if (!coverage(dustMask, 1, 0).empty())
                PlateWriter::writeGray(file("masks/glass_dustcover.png"), W(), H(), dustMask);
        }
        stackBox = coverage(stackMap, 3, 2);
        if (!stackBox.empty()) PlateWriter::writeRgb(file("masks/stack_uv.png"), W(), H(), stackMap);
    }

    // Colour of an arm surface under a preset's light (weights per plate, exposure included).
    Vec3 shadeArm(const std::vector<Vec3> &w, const Room::ArmHit &hit, const Vec3 &d, double jitter) const
    {
        Vec3 c;
        const Vec3 r = d - hit.n * (2 * d.dot(hit.n));
        for (size_t i = 0; i < plates.size(); ++i) {
            if (lights[i].kind == Room::LightKind::view) continue;
            const Vec3 e = room.irradiance(lights[i], hit.p, hit.n, jitter);
            c += w[i] * (hit.albedo * e * (1 / pi) + room.glossy(lights[i], hit.p, r, 30) * (0.35 * hit.gloss));
        }
        return c;
    }

    void renderTonearm()
    {
        if (armBox.empty()) return;
        const int aw = armBox.w, ah = armBox.h;
        // Scene under each sprite pixel: four sub-sample depths and the centre surface.
        std::vector<std::array<double, 4>> depth(size_t(aw) * ah);
        std::vector<Room::Surface> under(size_t(aw) * ah);
        parallelRows(0, ah, [&](int j) {
            for (int i = 0; i < aw; ++i) {
                const int x = armBox.x + i, y = armBox.y + j;
                for (int k = 0; k < 4; ++k) {
                    const Vec3 dk = cam.ray(x + 0.25 + 0.5 * (k & 1), y + 0.25 + 0.5 * (k >> 1));
                    depth[size_t(j) * aw + i][k] = room.trace(cam.eye(), dk).t;
                }
                under[size_t(j) * aw + i] = room.trace(cam.eye(), cam.ray(x + 0.5, y + 0.5));
            }
        });
        const int rw = reflBox.w, rh = reflBox.h;
        // Rays mirrored by the dust cover, per sub-sample (a zero direction: the cover is not in front).
        std::vector<std::array<std::pair<Vec3, Vec3>, 4>> mirrored(size_t(rw) * rh);
        parallelRows(0, rh, [&](int j) {
            for (int i = 0; i < rw; ++i) {
                const int x = reflBox.x + i, y = reflBox.y + j;
                for (int k = 0; k < 4; ++k) {
                    const Vec3 dk = cam.ray(x + 0.25 + 0.5 * (k & 1), y + 0.25 + 0.5 * (k >> 1));
                    const double lt = room.lidDistance(cam.eye(), dk);
                    auto &m = mirrored[size_t(j) * rw + i][k];
                    if (!(lt < room.trace(cam.eye(), dk).t)) continue;
                    const Vec3 nl = room.lidNormal();
                    m = {cam.eye() + dk * lt, dk - nl * (2 * dk.dot(nl))};
                }
            }
        });
        for (auto it = presets.begin(); it != presets.end(); ++it) {
            const QString preset = it.key();
            const std::vector<Vec3> &w = weights.at(preset);
            say("tonearm " + preset);
            // Per pixel and plate: this preset's light with the room's own shadows, and the same
            // light with no occluders at all; the arm's shadow is the share it removes from the latter.
            std::vector<std::vector<double>> lit(size_t(aw) * ah), open(size_t(aw) * ah);
            parallelRows(0, ah, [&](int j) {
                for (int i = 0; i < aw; ++i) {
                    const Room::Surface &s = under[size_t(j) * aw + i];
                    auto &v = lit[size_t(j) * aw + i];
                    auto &o = open[size_t(j) * aw + i];
                    v.assign(plates.size(), 0);
                    o.assign(plates.size(), 0);
                    if (s.part == Room::Part::none || s.part == Room::Part::glass) continue;
                    for (size_t p = 0; p < plates.size(); ++p) {
                        if (lights[p].kind == Room::LightKind::view || w[p].luminance() <= 0) continue;
                        v[p] = (w[p] * room.irradiance(lights[p], s.p, s.n, 0.5)).luminance();
                        o[p] = room.irradiance(lights[p], s.p, s.n, 0.5, nullptr, false).luminance();
                    }
                }
            });
            for (size_t n = 0; n < yawSamples.size(); ++n) {
                const Room::ArmPose pose = room.armPose(yawSamples[n]);
                const QString nn = QString("%1").arg(n, 2, 10, QChar('0'));
                std::vector<Imf::Rgba> arm(size_t(aw) * ah);
                std::vector<uint8_t> shadow(size_t(aw) * ah, 255);
                parallelRows(0, ah, [&](int j) {
                    for (int i = 0; i < aw; ++i) {
                        const int x = armBox.x + i, y = armBox.y + j;
                        const size_t idx = size_t(j) * aw + i;
                        Vec3 c;
                        double a = 0;
                        for (int k = 0; k < 4; ++k) {
                            const Vec3 dk = cam.ray(x + 0.25 + 0.5 * (k & 1), y + 0.25 + 0.5 * (k >> 1));
                            Room::ArmHit hit;
                            if (room.traceArm(pose, cam.eye(), dk, &hit) && hit.t < depth[idx][k]) {
                                c += shadeArm(w, hit, dk, pixelHash(x, y, seed));
                                a += 1;
                            }
                        }
                        arm[idx] = toHalf(c / 4, a / 4);
                        // Shadow: the share of this preset's light that the arm blocks.
                        const Room::Surface &s = under[idx];
                        double total = 0, kept = 0;
                        for (size_t p = 0; p < plates.size(); ++p) {
                            const double l = lit[idx][p];
                            if (l <= 0) continue;
                            const double unblocked = open[idx][p];
                            const double blocked =
                                unblocked > 0 ? room.irradiance(lights[p], s.p, s.n, 0.5, &pose, false).luminance() : 0;
                            total += l;
                            kept += unblocked > 0 ? l * blocked / unblocked : l;
                        }
                        if (total > 0) shadow[idx] = toByte(kept / total);
                    }
                });
                PlateWriter::writeExr(file("tonearm/" + preset + "/arm_" + nn + ".exr"), aw, ah, arm, true);
                PlateWriter::writeGray(file("tonearm/" + preset + "/shadow_" + nn + ".png"), aw, ah, shadow);
                if (wantPreview && preset == "dia" && n == 0) overPreview(arm, armBox, shadow);
                if (reflBox.empty()) continue;
                // The arm mirrored in the acrylic dust cover.
                std::vector<Imf::Rgba> refl(size_t(rw) * rh, toHalf({}, 0));
                parallelRows(0, rh, [&](int j) {
                    for (int i = 0; i < rw; ++i) {
                        Vec3 c;
                        double a = 0;
                        for (int k = 0; k < 4; ++k) {
                            const auto &[q, r] = mirrored[size_t(j) * rw + i][k];
                            if (r.x == 0 && r.y == 0 && r.z == 0) continue;
                            Room::ArmHit hit;
                            if (room.traceArm(pose, q, r, &hit)) {
                                c += shadeArm(w, hit, r, 0.5) * 0.06;
                                a += 0.06;
                            }
                        }
                        refl[size_t(j) * rw + i] = toHalf(c / 4, a / 4);
                    }
                });
                PlateWriter::writeExr(file("tonearm/" + preset + "/reflection_" + nn + ".exr"), rw, rh, refl, true);
            }
        }
    }

    // Leaves of a house plant in the near corner, over everything; dark, since nothing lights them
    // in the composite.
    void renderFront()
    {
        const int w = W(), h = H();
        struct Leaf {
            double cx, cy, len, width, angle;
        };
        static const Leaf leaves[] = {{0.05, 0.93, 0.20, 0.055, -0.9},
                                      {0.12, 0.97, 0.22, 0.06, -0.35},
                                      {0.02, 0.80, 0.16, 0.05, -1.35},
                                      {0.18, 0.99, 0.14, 0.045, 0.15},
                                      {0.09, 0.86, 0.15, 0.045, -0.7}};
        double cosines[std::size(leaves)], sines[std::size(leaves)];
        for (size_t l = 0; l < std::size(leaves); ++l) {
            cosines[l] = std::cos(leaves[l].angle);
            sines[l] = std::sin(leaves[l].angle);
        }
        std::vector<Imf::Rgba> px(size_t(w) * h, toHalf({}, 0));
        std::vector<uint8_t> covered(size_t(w) * h, 0);
        parallelRows(0, h, [&](int y) {
            for (int x = 0; x < w; ++x) {
                Vec3 c;
                double a = 0;
                for (int k = 0; k < 4; ++k) {
                    // Plate coordinates in units of the plate height, so the plant scales with the plate.
                    const double u = (x + 0.25 + 0.5 * (k & 1)) / h, v = (y + 0.25 + 0.5 * (k >> 1)) / h;
                    for (size_t l = 0; l < std::size(leaves); ++l) {
                        const Leaf &leaf = leaves[l];
                        const double dx = u - leaf.cx, dy = v - leaf.cy;
                        const double along = dx * cosines[l] + dy * sines[l];
                        const double across = -dx * sines[l] + dy * cosines[l];
                        const double t = along / leaf.len;
                        if (t < -1 || t > 1) continue;
                        const double halfWidth = leaf.width * std::sqrt(1 - t * t);
                        if (std::abs(across) < halfWidth) {
                            const double vein = std::abs(across) < halfWidth * 0.08 ? 1.4 : 1.0;
                            c += Vec3{0.012, 0.03, 0.012} * ((1.2 + 0.6 * t) * vein);
                            a += 1;
                            break;
                        }
                    }
                }
                if (a > 0) {
                    px[size_t(y) * w + x] = toHalf(c / 4, a / 4);
                    covered[size_t(y) * w + x] = 1;
                }
            }
        });
        frontBox = coverage(covered, 1, 0);
        if (frontBox.empty()) return;
        PlateWriter::writeExr(file("front/plant.exr"), w, h, px, true);
        if (wantPreview) overPreview(px, {0, 0, w, h}, {});
    }

    void overPreview(const std::vector<Imf::Rgba> &sprite, const Rect &box, const std::vector<uint8_t> &shadow)
    {
        for (int j = 0; j < box.h; ++j)
            for (int i = 0; i < box.w; ++i) {
                const size_t s = size_t(j) * box.w + i, p = (size_t(box.y + j) * W() + box.x + i) * 3;
                const Imf::Rgba &c = sprite[s];
                const float sh = shadow.empty() ? 1.f : shadow[s] / 255.f;
                const float a = c.a;
                preview[p] = c.r + (1 - a) * preview[p] * sh;
                preview[p + 1] = c.g + (1 - a) * preview[p + 1] * sh;
                preview[p + 2] = c.b + (1 - a) * preview[p + 2] * sh;
            }
    }

    void writePreview(const QString &path) const
    {
        std::vector<uint8_t> rgb(preview.size());
        for (size_t i = 0; i < preview.size(); ++i) {
            const double v = std::max(0.0f, preview[i]);
            rgb[i] = toByte(std::pow(v / (1 + v), 1 / 2.2));
        }
        PlateWriter::writeRgb(path, W(), H(), rgb);
    }

    QJsonArray corners(const std::vector<Vec3> &pts) const
    {
        QJsonArray a;
        for (const Vec3 &p : pts) {
            const auto uv = cam.project(p);
            a.append(arr({r4(uv[0]), r4(uv[1])}));
        }
        return a;
    }

    QJsonArray discCorners(double radius) const
    {
        const Vec3 c = room.recordCentre();
        return corners({c + Vec3{-radius, radius, 0}, c + Vec3{radius, radius, 0}, c + Vec3{radius, -radius, 0},
                        c + Vec3{-radius, -radius, 0}});
    }

    QJsonObject led(const Vec3 &at, const Vec3 &colour) const
    {
        const auto c = cam.project(at), e = cam.project(at + Vec3{room.ledRadius(), 0, 0});
        return {{"center_px", arr({r4(c[0]), r4(c[1])})},
                {"radius_px", r4(std::max(0.5, std::hypot(e[0] - c[0], e[1] - c[1])))},
                {"color", vec(colour)}};
    }

    QJsonObject json() const
    {
        QJsonArray P;
        for (const auto &row : cam.matrix()) P.append(arr({row[0], row[1], row[2], row[3]}));
        QJsonObject f;
        f["size"] = arr({double(W()), double(H())});
        f["camera"] = QJsonObject{{"P", P}};
        f["cover"] = QJsonObject{{"corners", corners(room.sleeveCorners())}, {"mask", "masks/cover.png"}};
        f["label"] = QJsonObject{{"corners", discCorners(room.labelRadius())}, {"mask", "masks/label.png"}};
        if (!armBox.empty()) {
            QJsonArray samples;
            for (double y : yawSamples) samples.append(y);
            QJsonObject arm{{"pivot", vec(room.pivot())},
                            {"yaw_axis", arr({0, 0, -1})},
                            {"lift_axis", arr({-1, 0, 0})},
                            {"yaw_rest", 0.0},
                            {"yaw_lead_in", r4(room.yawForRadius(room.grooveOuter()))},
                            {"yaw_run_out", r4(room.yawForRadius(room.grooveInner()))},
                            {"lift_max", 6.0},
                            {"plane_z", room.recordTop()},
                            {"yaw_samples", samples},
                            {"bbox", armBox.json()},
                            {"shadow", true},
                            {"reflection", !reflBox.empty()}};
            if (!reflBox.empty()) arm["reflection_bbox"] = reflBox.json();
            f["tonearm"] = arm;
        }
        if (!frontBox.empty()) f["front"] = QJsonObject{{"bbox", frontBox.json()}};
        const auto steam = cam.project(room.cupTop());
        f["steam"] = QJsonObject{{"point_px", arr({r4(steam[0]), r4(steam[1])})}};
        if (!recordBox.empty())
            f["record"] = QJsonObject{{"corners", discCorners(room.recordRadius())},
                                      {"center_world", vec(room.recordCentre())},
                                      {"radius_mm", room.recordRadius()},
                                      {"label_radius_mm", room.labelRadius()},
                                      {"groove_outer_mm", room.grooveOuter()},
                                      {"groove_inner_mm", room.grooveInner()},
                                      {"bbox", recordBox.json()},
                                      {"mask", "masks/record.png"}};
        if (!bounceBox.empty()) f["bounce"] = QJsonObject{{"bbox", bounceBox.json()}};
        f["panel"] = QJsonObject{{"led33", led(room.led33(), {2.4, 0.25, 0.08})},
                                 {"led45", led(room.led45(), {2.4, 0.25, 0.08})},
                                 {"strobe", QJsonObject{{"mask", "masks/strobe.png"},
                                                        {"dots", room.strobeDots()},
                                                        {"color", arr({1.6, 0.45, 0.15})}}}};
        if (QFileInfo::exists(file("masks/glass.png"))) {
            QJsonObject win{{"glass_mask", "masks/glass.png"}};
            if (QFileInfo::exists(file("masks/glass_dustcover.png"))) {
                win["dust_cover_mask"] = "masks/glass_dustcover.png";
                win["dust_cover_transmission"] = 0.86;
            }
            f["window"] = win;
        }
        if (!stackBox.empty()) f["stack"] = QJsonObject{{"art_uv", "masks/stack_uv.png"}, {"bbox", stackBox.json()}};
        return f;
    }
};

}  // namespace

QStringList SceneGenerator::knownFramings()
{
    QStringList names;
    for (const auto &[name, setup] : cameraSetups()) names.append(name);
    return names;
}

QJsonObject SceneGenerator::Summary::toJson(const QString &out) const
{
    return {{"out", out},
            {"framings", QJsonArray::fromStringList(framings)},
            {"light_plates", lightPlates},
            {"files", files},
            {"bytes", double(bytes)},
            {"seconds", std::round(seconds * 100) / 100}};
}

SceneGenerator::Summary SceneGenerator::generate(const Options &options, const Progress &progress)
{
    QElapsedTimer timer;
    timer.start();
    if (options.out.isEmpty()) throw Error("no output folder given");
    if (options.width < 16 || options.height < 16 || options.width > 16384 || options.height > 16384)
        throw Error("plate size must be between 16 and 16384 pixels a side");
    if (options.framings.isEmpty()) throw Error("no framings asked for");
    for (const QString &f : options.framings)
        if (!cameraSetups().count(f))
            throw Error(("unknown framing \"" + f + "\" (known: " + knownFramings().join(", ") + ")").toStdString());
    if (!QDir().mkpath(options.out)) throw Error(("cannot create " + options.out).toStdString());

    Imf::setGlobalThreadCount(std::max(1, QThread::idealThreadCount()));
    const Room room(options.seed);
    const QJsonObject presets = presetsJson(room);

    Summary summary;
    QJsonObject framings;
    for (int i = 0; i < options.framings.size(); ++i) {
        const QString name = options.framings[i];
        const QString dir = QDir(options.out).filePath(name);
        QDir(dir).removeRecursively();
        Framing framing(name, room, cameraSetups().at(name), options.width, options.height, dir, presets, options.seed,
                        progress);
        framing.wantPreview = i == 0 && !options.preview.isEmpty();
        try {
            framing.computeBoxes();
            framing.renderPlates();
            framing.writeMasks();
            framing.renderTonearm();
            framing.renderFront();
            if (framing.wantPreview) framing.writePreview(options.preview);
        } catch (const PlateWriter::Error &e) {
            throw Error(e.what());
        }
        framings[name] = framing.json();
        summary.lightPlates = int(framing.plates.size());
        summary.framings.append(name);
        framing.say("done");
    }

    QJsonObject manifest{
        {"contract", 1},
        {"sun_keys", QJsonArray::fromStringList(sunKeys)},
        {"groups", QJsonArray::fromStringList(groups)},
        {"per_preset_groups", QJsonArray::fromStringList(perPresetGroups)},
        {"view", QJsonObject{{"keys", QJsonArray::fromStringList(canonical)}}},
        {"scenario", scenario},
        {"tonemap", QJsonObject{{"contrast", 1.15}, {"offset", 0.0}, {"gamma", 1.0}}},
        {"showcase", QJsonObject{{"floor", 0.06}, {"max_gain", 3.0}, {"art_floor", 0.04}, {"dark_max_gain", 6.0}}},
        {"presets", presets},
        {"clock", QJsonArray{QJsonArray{"06:00", "manha"}, QJsonArray{"10:00", "dia"}, QJsonArray{"15:00", "tarde"},
                             QJsonArray{"19:30", "noite"}}},
        {"framings", framings}};
    QSaveFile file(QDir(options.out).filePath("manifest.json"));
    if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(manifest).toJson(QJsonDocument::Indented)) < 0 ||
        !file.commit())
        throw Error(("cannot write " + file.fileName()).toStdString());

    QDirIterator it(options.out, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        ++summary.files;
        summary.bytes += it.fileInfo().size();
    }
    summary.seconds = timer.elapsed() / 1000.0;
    return summary;
}
