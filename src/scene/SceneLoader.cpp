#include "scene/SceneLoader.h"

#include "core/app/Log.h"
#include "core/app/Settings.h"
#include "core/scene/ImageDecoder.h"
#include "core/scene/SceneFiles.h"
#include "core/scene/SceneLocation.h"
#include "vulkan/VulkanCheck.h"
#include "scene/LoadedScene.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QFutureWatcher>
#include <QThread>
#include <QtConcurrent>

namespace {

struct Outcome {
    std::unique_ptr<LoadedScene> scene;
    SceneStatus::Problem problem;
    double seconds = 0;
};

}  // namespace

SceneLoader::SceneLoader(SceneRenderer &r, SceneStatus &st, Settings &se, Assemble assemble, QObject *parent)
    : QObject(parent)
    , renderer(r)
    , status(st)
    , settings(se)
    , build(assemble ? std::move(assemble) : &SceneAssembly::load)
{
}

SceneLoader::~SceneLoader()
{
    if (assembling) {
        assembling->waitForFinished();
        delete assembling.data();
    }
}

void SceneLoader::fail(SceneStatus::Reason reason, const QString &detail)
{
    if (onUnavailable) onUnavailable(SceneStatus::Problem{reason, detail});
}

void SceneLoader::framingChanged()
{
    const auto found = SceneLocation::resolve();
    const QString wanted = settings.framing();
    if (found && found->manifest.framings.count(wanted) &&
        !SceneFiles::missing(found->root, found->manifest, wanted).isEmpty()) {
        Log::write(QStringLiteral("Cena: enquadramento ") + wanted + QStringLiteral(" não instalado; fica ") +
                   (framingName.isEmpty() ? QStringLiteral("o atual") : framingName));
        return;
    }
    load();
}

void SceneLoader::load()
{
    const auto found = SceneLocation::resolve();
    if (!found) {
        ++loadGeneration;
        fail(SceneStatus::Reason::noScene,
             QStringLiteral("nenhuma cena instalada em ") + SceneLocation::installedRoot());
        return;
    }
    const QStringList framings = SceneAssembly::sortedFramings(found->manifest);
    if (framings.isEmpty()) {
        ++loadGeneration;
        fail(SceneStatus::Reason::badManifest, QStringLiteral("manifest sem enquadramentos"));
        return;
    }
    const QStringList installed = SceneFiles::installed(found->root, found->manifest, framings);
    const QString wanted = settings.framing();
    QString framing = installed.contains(wanted)        ? wanted
                      : installed.contains(framingName) ? framingName
                      : !installed.isEmpty()            ? installed.first()
                      // Nothing whole on disk: the assembly names what is missing.
                      : framings.contains(wanted) ? wanted
                                                  : framings.first();
    status.setScene(framings, installed, framing, found->root, found->manifest);
    Log::write(QStringLiteral("Cena: carregando ") +
               found->manifest.scenario.value_or(QFileInfo(found->root).fileName()));
    const int generation = ++loadGeneration;
    // Started on a later turn of the event loop, so that a burst of reloads assembles once.
    QTimer::singleShot(0, this, [this, generation, root = found->root, manifest = found->manifest, framing] {
        assemble(generation, root, manifest, framing);
    });
}

void SceneLoader::assemble(int generation, const QString &root, const PlateManifest &manifest, const QString &framing)
{
    if (generation != loadGeneration) return;
    if (assembling) {  // one assembly at a time: the newer one starts when the older is done
        connect(assembling.data(), &QFutureWatcherBase::finished, this,
                [this, generation, root, manifest, framing] { assemble(generation, root, manifest, framing); });
        return;
    }
    QThread *home = thread();
    QPointer<SceneLoader> self(this);
    auto onReady = [self, generation](const QString &preset) {
        if (self && generation == self->loadGeneration && self->onPresetReady) self->onPresetReady(preset);
    };
    auto *watcher = new QFutureWatcher<std::shared_ptr<Outcome>>(this);
    assembling = watcher;
    connect(watcher, &QFutureWatcherBase::finished, this, [this, watcher, generation, root, framing] {
        watcher->deleteLater();
        std::shared_ptr<Outcome> outcome = watcher->result();
        if (generation != loadGeneration) return;  // a newer load is on its way
        if (!outcome->scene) {
            fail(outcome->problem.reason, outcome->problem.detail);
            return;
        }
        framingName = framing;
        if (onLoaded) onLoaded(std::move(outcome->scene), root, outcome->seconds);
    });
    SceneRenderer *r = &renderer;
    Assemble assembleScene = build;
    watcher->setFuture(QtConcurrent::run([r, root, manifest, framing, onReady, home, assembleScene] {
        auto outcome = std::make_shared<Outcome>();
        QElapsedTimer timer;
        timer.start();
        using Reason = SceneStatus::Reason;
        try {
            Assembled assembled = assembleScene(*r, root, manifest, framing, onReady);
            if (auto *why = std::get_if<QString>(&assembled)) {
                outcome->problem = {Reason::damagedPlates, *why};
            } else {
                outcome->scene = std::move(std::get<std::unique_ptr<LoadedScene>>(assembled));
                outcome->scene->moveToThread(home);
            }
        } catch (const VulkanError &e) {
            outcome->problem = {Reason::gpu, QStringLiteral("erro do dispositivo Vulkan ao montar a cena: ") +
                                                 QString::fromUtf8(e.what())};
        } catch (const SceneError &e) {
            outcome->problem = {Reason::damagedPlates, e.description()};
        } catch (const std::bad_alloc &) {
            outcome->problem = {Reason::gpu, QStringLiteral("memória insuficiente para montar a cena")};
        } catch (const std::exception &e) {
            outcome->problem = {Reason::gpu, QStringLiteral("falha ao montar a cena: ") + QString::fromUtf8(e.what())};
        } catch (...) {
            outcome->problem = {Reason::gpu, QStringLiteral("falha desconhecida ao montar a cena")};
        }
        outcome->seconds = timer.elapsed() / 1000.0;
        return outcome;
    }));
}
