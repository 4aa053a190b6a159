#pragma once

#include "core/lighting/LightMixer.h"
#include "core/scene/PlateManifest.h"
#include "core/turntable/TonearmMotion.h"
#include "render/SceneTextures.h"
#include "render/SceneUniforms.h"
#include "vulkan/VulkanContext.h"
#include "scene/PlateGeometry.h"

#include <QFuture>
#include <QObject>
#include <QString>
#include <array>
#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

// The tonearm's pre-rendered sprites per (preset, yaw sample), loaded on demand, and the pose
// that picks and warps up to four of them for a yaw and lift. Main thread; decoding runs on
// worker threads and results are stored back on the main thread.
class TonearmSprites : public QObject {
    Q_OBJECT
public:
    struct Frame {
        TextureRef texture;
        Float4 rect{};  // in the sample's own plate pixels
        TextureRef shadow;
        Float4 shadowRect{};
        TextureRef reflection;
        Float4 reflectionRect{};  // plate pixels
        size_t bytes() const;
    };
    using Key = std::pair<QString, int>;  // (preset, index into yawSamples)
    struct Slot {
        const Frame *frame = nullptr;
        float weight = 0;
        int warp = 0;
    };
    struct Pose {
        // At most four, held in place so a frame's pose allocates nothing: slots 0, 1 use warp 0;
        // 2, 3 warp 1.
        struct Slots {
            std::array<Slot, 4> items{};
            size_t count = 0;
            size_t size() const { return count; }
            bool empty() const { return count == 0; }
            const Slot &operator[](size_t i) const { return items[i]; }
            void push_back(const Slot &s) { items[count++] = s; }
            void pop_back() { --count; }
            const Slot &back() const { return items[count - 1]; }
            const Slot *begin() const { return items.data(); }
            const Slot *end() const { return items.data() + count; }
        } slotList;
        std::array<Float3x3, 2> warps{Float3x3::identity(), Float3x3::identity()};
        float weight = 0;  // sum of the slot weights
        // Writes armInv, armRects, shadowRects, reflRects, armWeights, armCount and the slotList'
        // textures.
        void apply(SceneUniforms &u, SceneTextures &t) const;
    };

    // `dir`: the framing's "tonearm" folder.
    TonearmSprites(PlateManifest::Tonearm info, PlateManifest::Camera camera, std::shared_ptr<VulkanContext> context,
                   QString dir, QObject *parent = nullptr);
    ~TonearmSprites() override;

    std::pair<int, double> neighbors(double yaw) const;
    // Starts loading the samples around `yaw` and `goal` for the presets; returns at once.
    void ensure(const std::set<QString> &presets, double yaw, double goal);
    // The same, decoding on this thread (offline rendering, tests).
    void ensureNow(const std::set<QString> &presets, double yaw, double goal);
    // None while no sprite of the blend is loaded.
    std::optional<Pose> pose(double yaw, double liftDegrees, const Blend &blend) const;
    // The pose of an arm state: its yaw, its lift turned into an angle.
    std::optional<Pose> pose(const TonearmMotion &arm, const Blend &blend) const
    {
        return pose(arm.yaw, liftDegrees(arm.lift), blend);
    }
    // Lift state 0 (needle down) … 1 (fully lifted) → degrees about the lift axis, up to `liftMax`.
    double liftDegrees(double lift) const { return std::clamp(lift, 0.0, 1.0) * info.liftMax; }
    size_t memoryBytes() const;
    bool isLoading() const { return !loading.empty(); }

    const PlateManifest::Tonearm info;
    std::function<void()> onLoaded;

private:
    std::set<Key> keysFor(const std::set<QString> &presets, double yaw, double goal) const;
    std::optional<Frame> load(const Key &key) const;  // any thread
    const Frame *frameNear(const QString &preset, int index) const;
    // Plate pixel → sprite source of sample `index`, for the arm at (yaw, lift).
    Float3x3 warp(int index, double yaw, double liftDegrees) const;

    PlateManifest::Camera camera;
    std::shared_ptr<VulkanContext> context;
    QString dir;
    std::map<Key, std::optional<Frame>> cache;
    std::set<Key> loading;
    std::vector<QFuture<void>> work;
    PlateGeometry::Vec3 pivot{}, planeOrigin{}, yawAxis{}, liftAxis{}, e1{}, e2{};
};
