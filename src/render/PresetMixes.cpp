#include "render/PresetMixes.h"

#include "core/scene/ImageDecoder.h"
#include "core/app/Log.h"

#include <QElapsedTimer>
#include <QPointer>
#include <QThread>
#include <QtConcurrent>
#include <algorithm>
#include <malloc.h>

PresetMixes::PresetMixes(QString familyName, std::shared_ptr<MixBuilder> b, QString plateDir, const LightMixer &lights,
                         int w, int h, VkFormat f, TermRule rule, QObject *parent)
    : QObject(parent)
    , name(std::move(familyName))
    , dir(std::move(plateDir))
    , width(w)
    , height(h)
    , format(f)
    , builder(std::move(b))
{
    for (const auto &[preset, p] : lights.presets) {
        std::vector<MixBuilder::Term> terms;
        for (const LightMixer::Term &t : p.recipe) {
            if (rule == TermRule::recordPasses) {
                terms.push_back({t.plate + QStringLiteral("_spec"), t.weight, false});
                terms.push_back({t.plate + QStringLiteral("_diffuse"), t.weight, true});
            } else {
                terms.push_back({t.plate, t.weight, false});
            }
        }
        recipeMap[preset] = std::move(terms);
    }
}

PresetMixes::~PresetMixes() { work.waitForFinished(); }

TextureRef PresetMixes::ready(const QString &preset) const
{
    auto it = readyMap.find(preset);
    return it == readyMap.end() ? nullptr : it->second;
}

size_t PresetMixes::memoryBytes() const
{
    size_t total = 0;
    for (const auto &[preset, t] : readyMap) total += size_t(t->allocatedSize);
    return total;
}

void PresetMixes::ensure(const std::set<QString> &set)
{
    // Builds report to this object's thread: asked from another, their results would be lost.
    Q_ASSERT(thread() == QThread::currentThread());
    if (wantedSetOnce && set == wantedSet) return;
    wantedSetOnce = true;
    wantedSet = set;
    for (auto it = readyMap.begin(); it != readyMap.end();) {
        if (set.count(it->first)) {
            ++it;
            continue;
        }
        const QString preset = it->first;
        it = readyMap.erase(it);
        Log::write(QStringLiteral("Cena: ") + name + " " + preset + QStringLiteral(" descarregado (") +
                   QString::number(memoryBytes() / 1048576) + QStringLiteral(" MB em uso)"));
    }
    waiting.erase(std::remove_if(waiting.begin(), waiting.end(), [&](const QString &n) { return !set.count(n); }),
                  waiting.end());
    std::vector<QString> add;
    for (const QString &n : set)  // std::set iterates in ascending order
        if (!readyMap.count(n) && inFlight != n && std::find(waiting.begin(), waiting.end(), n) == waiting.end() &&
            recipeMap.count(n))
            add.push_back(n);
    waiting.insert(waiting.end(), add.begin(), add.end());
    startNext();
}

void PresetMixes::startNext()
{
    if (inFlight || waiting.empty()) return;
    const QString preset = waiting.front();
    waiting.pop_front();
    inFlight = preset;
    auto it = recipeMap.find(preset);
    std::vector<MixBuilder::Term> terms = it == recipeMap.end() ? std::vector<MixBuilder::Term>{} : it->second;
    QPointer<PresetMixes> self(this);
    work = QtConcurrent::run([self, b = builder, terms, d = dir, w = width, h = height, f = format, preset] {
        QElapsedTimer timer;
        timer.start();
        Outcome outcome;
        try {
            outcome.texture = b->build(terms, d, w, h, f);
        } catch (const SceneError &e) {
            outcome.error = e.description();
        } catch (const std::exception &e) {
            outcome.error = QString::fromUtf8(e.what());
        }
        outcome.seconds = double(timer.nsecsElapsed()) * 1e-9;
        // Dropped by Qt when the family is gone before the result arrives.
        if (!self) return;
        QMetaObject::invokeMethod(
            self.data(),
            [self, preset, outcome] {
                if (self) self->finish(preset, outcome);
            },
            Qt::QueuedConnection);
    });
}

void PresetMixes::finish(const QString &preset, const Outcome &outcome)
{
    inFlight.reset();
    // A build frees several hundred megabytes of decoded plates; give them back now.
    malloc_trim(0);
    if (outcome.texture) {
        if (wantedSet.count(preset)) {
            readyMap[preset] = outcome.texture;
            Log::write(QString::asprintf("Cena: %s %s montado em %.2f s (%d MB em uso)", qUtf8Printable(name),
                                         qUtf8Printable(preset), outcome.seconds, int(memoryBytes() / 1048576)));
            if (onReady) onReady(preset);
        }
    } else {
        Log::write(QStringLiteral("Cena: ") + name + " " + preset + QStringLiteral(" falhou: ") + outcome.error);
        if (onFailure) onFailure(outcome.error);
    }
    startNext();
}
