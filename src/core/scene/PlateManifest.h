#pragma once

#include "core/scene/JSONValue.h"
#include "core/scene/SceneError.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <array>
#include <map>
#include <optional>
#include <stdexcept>
#include <vector>

// The decoded manifest.json of a scene. Object keys may be written in snake case or camel case;
// the keys of `presets`, of each preset and of `framings` are names and are kept verbatim.
// A list of n numbers in the file may hold more; the first n are kept.
struct PlateManifest {
    using Vec2 = std::array<double, 2>;
    using Vec3 = std::array<double, 3>;
    using Rect = std::array<double, 4>;  // x, y, width, height in plate pixels
    using Quad = std::array<Vec2, 4>;

    struct ViewExtension {
        std::optional<QStringList> keys;
    };
    struct Tonemap {
        std::optional<double> contrast, offset, gamma;
    };
    struct Showcase {
        std::optional<double> floor, maxGain, artFloor, darkMaxGain;
    };
    struct Camera {
        std::array<std::array<double, 4>, 3> P{};  // row by row
    };
    struct Surface {
        Quad corners{};
        QString mask;
    };
    struct Crop {
        Rect bbox{};
    };
    struct Front {
        Rect bbox{};
    };
    struct Steam {
        Vec2 pointPx{};
    };
    struct Record {
        Quad corners{};
        Vec3 centerWorld{};
        double radiusMm = 0, labelRadiusMm = 0, grooveOuterMm = 0, grooveInnerMm = 0;
        Rect bbox{};
        QString mask;
    };
    struct Tonearm {
        Vec3 pivot{}, yawAxis{}, liftAxis{};
        double yawRest = 0, yawLeadIn = 0, yawRunOut = 0, liftMax = 0;
        std::optional<double> planeZ;
        std::vector<double> yawSamples;
        Rect bbox{};
        std::optional<bool> shadow, reflection;
        std::optional<Rect> reflectionBbox;
    };
    struct LED {
        Vec2 centerPx{};
        double radiusPx = 0;
        Vec3 color{};
    };
    struct Strobe {
        QString mask;
        double dots = 0;
        Vec3 color{};
    };
    struct Panel {
        std::optional<LED> led33, led45;
        std::optional<Strobe> strobe;
    };
    struct Window {
        QString glassMask;
        std::optional<QString> dustCoverMask;
        std::optional<double> dustCoverTransmission;
    };
    struct Stack {
        QString artUv;
        Rect bbox{};
    };
    struct Framing {
        Vec2 size{};
        Camera camera;
        Surface cover, label;
        std::optional<Tonearm> tonearm;
        std::optional<Front> front;
        std::optional<Steam> steam;
        std::optional<Record> record;
        std::optional<Crop> bounce;
        std::optional<Panel> panel;
        std::optional<Window> window;
        std::optional<Stack> stack;
    };
    using Preset = std::map<QString, JSONValue>;

    long long contract = 0;
    QStringList sunKeys;
    QStringList groups;
    std::optional<QStringList> perPresetGroups;
    std::optional<ViewExtension> view;
    std::optional<QString> scenario;
    std::optional<Tonemap> tonemap;
    std::optional<Showcase> showcase;
    std::map<QString, Preset> presets;
    std::vector<QStringList> clock;
    std::map<QString, Framing> framings;

    // Throws SceneError (badManifest; `what()` names the field, e.g. "framings.mid.camera.P: …") for unreadable JSON, a
    // missing required field or a wrong type.
    static PlateManifest decode(const QByteArray &json);

    // "manha", "dia", "tarde", "noite" when present, then the other presets sorted.
    QStringList presetOrder() const;
    // "wide" → "Wide", "mid" → "Medium", "close" → "Close", "top" → "Top-down"; others capitalised.
    static QString framingDisplayName(const QString &key);
    // The canonical preset names, in order.
    static const QStringList &canonicalPresets();
};
