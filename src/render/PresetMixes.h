#pragma once

#include "core/lighting/LightMixer.h"
#include "render/MixBuilder.h"

#include <QFuture>
#include <QObject>
#include <QString>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <vector>

// The pre-mixed light textures of one family of plates ("luz", "disco" or "rebatimento"):
// which presets must be ready, their builds one at a time on a worker thread, and eviction of
// the ones no longer wanted. Used on the thread it lives on (made on the assembling thread, then
// moved to the main thread before its first `ensure`); its builds report back there.
// Destroying it waits for a build in flight.
class PresetMixes : public QObject {
    Q_OBJECT
public:
    // How a recipe term becomes build terms: as it is, or for the record passes the pair
    // plate + "_spec" into RGB and plate + "_diffuse" as luminance into alpha.
    enum class TermRule { asIs, recordPasses };

    PresetMixes(QString name, std::shared_ptr<MixBuilder> builder, QString dir, const LightMixer &lights, int width,
                int height, VkFormat format, TermRule rule, QObject *parent = nullptr);
    ~PresetMixes() override;

    // Makes `wanted` the presets to keep: queues builds (ascending names) and evicts the rest.
    void ensure(const std::set<QString> &wanted);
    // The finished texture of a preset, or null.
    TextureRef ready(const QString &preset) const;
    // Sum of the allocated sizes of the ready textures.
    size_t memoryBytes() const;

    const QString name;
    const QString dir;
    const int width;
    const int height;
    const VkFormat format;
    const std::map<QString, std::vector<MixBuilder::Term>> &recipes() const { return recipeMap; }
    const std::optional<QString> &building() const { return inFlight; }
    const std::deque<QString> &queue() const { return waiting; }
    const std::set<QString> &wanted() const { return wantedSet; }
    const std::map<QString, TextureRef> &readyTextures() const { return readyMap; }

    std::function<void(const QString &preset)> onReady;
    std::function<void(const QString &error)> onFailure;

private:
    struct Outcome {
        TextureRef texture;
        QString error;
        double seconds = 0;
    };
    void startNext();
    void finish(const QString &preset, const Outcome &outcome);

    std::shared_ptr<MixBuilder> builder;
    std::map<QString, std::vector<MixBuilder::Term>> recipeMap;
    std::map<QString, TextureRef> readyMap;
    std::optional<QString> inFlight;
    std::deque<QString> waiting;
    std::set<QString> wantedSet;
    bool wantedSetOnce = false;
    QFuture<void> work;
};
