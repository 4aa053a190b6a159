#pragma once

#include "core/scene/PlateManifest.h"
#include "core/scene/SceneStatus.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <functional>
#include <memory>
#include <variant>

class QFutureWatcherBase;
class SceneRenderer;
class Settings;
struct LoadedScene;

// Finds the installed scene, chooses its framing and assembles it on a worker thread, once for
// every screen that shows it. A newer load makes an older one's result stale. Whatever fails on
// the way, a decoder or the device, comes back as a reason: nothing thrown on the worker reaches
// the event loop. Main thread.
class SceneLoader : public QObject {
    Q_OBJECT
public:
    using Assembled = std::variant<std::unique_ptr<LoadedScene>, QString>;
    // Builds the scene of one framing (SceneAssembly::load); runs on a worker thread and may throw.
    using Assemble =
        std::function<Assembled(SceneRenderer &renderer, const QString &root, const PlateManifest &manifest,
                                const QString &framing, std::function<void(const QString &)> onPresetReady)>;

    SceneLoader(SceneRenderer &renderer, SceneStatus &status, Settings &settings, Assemble assemble = {},
                QObject *parent = nullptr);
    // Waits for an assembly in flight: it uses the renderer.
    ~SceneLoader() override;

    // (Re)loads the scene: the framing of the settings when its files are all on disk, else the
    // one on screen, else the first installed one.
    void load();
    // The "framing" setting changed: a framing that is not on disk yet leaves the room as it is
    // (its download brings it in through a new load).
    void framingChanged();
    // The framing of the last load; empty before the first.
    const QString &framing() const { return framingName; }
    // The generation of the last load; results and callbacks of older ones are dropped.
    int generation() const { return loadGeneration; }

    // The scene of the current load, with its root and the seconds its assembly took.
    std::function<void(std::unique_ptr<LoadedScene> scene, const QString &root, double seconds)> onLoaded;
    std::function<void(const SceneStatus::Problem &problem)> onUnavailable;
    // A light mix of the current load is ready.
    std::function<void(const QString &preset)> onPresetReady;

private:
    void assemble(int generation, const QString &root, const PlateManifest &manifest, const QString &framing);
    void fail(SceneStatus::Reason reason, const QString &detail);

    SceneRenderer &renderer;
    SceneStatus &status;
    Settings &settings;
    Assemble build;
    QPointer<QFutureWatcherBase> assembling;
    int loadGeneration = 0;
    QString framingName;
};
