#include "core/scene/SceneFiles.h"

#include "core/scene/LightRecipe.h"

#include <QDir>
#include <QFileInfo>
#include <set>

namespace SceneFiles {

QString lightPlate(const QString &framing, const QString &plate)
{
    return framing + QStringLiteral("/light/") + plate + QStringLiteral(".exr");
}

QString recordDir(const QString &framing) { return framing + QStringLiteral("/record"); }
QString bounceDir(const QString &framing) { return framing + QStringLiteral("/bounce"); }
QString frontDir(const QString &framing) { return framing + QStringLiteral("/front"); }

QString tonearmSprite(const QString &framing, const QString &preset, int index, SpriteKind kind)
{
    static const char *const names[] = {"arm_%1.exr", "shadow_%1.png", "reflection_%1.exr"};
    return framing + QStringLiteral("/tonearm/") + preset + QLatin1Char('/') +
           QString::fromLatin1(names[int(kind)]).arg(index, 2, 10, QLatin1Char('0'));
}

QString framingFile(const QString &framing, const QString &name) { return framing + QLatin1Char('/') + name; }

QStringList referenced(const PlateManifest &manifest, const QString &name)
{
    const auto it = manifest.framings.find(name);
    if (it == manifest.framings.end()) return {};
    const PlateManifest::Framing &f = it->second;
    std::set<QString> files;
    const auto named = [&](const QString &file) { files.insert(framingFile(name, file)); };
    named(f.cover.mask);
    named(f.label.mask);
    if (f.record) named(f.record->mask);
    if (f.panel && f.panel->strobe) named(f.panel->strobe->mask);
    if (f.window) {
        named(f.window->glassMask);
        if (f.window->dustCoverMask) named(*f.window->dustCoverMask);
    }
    if (f.stack) named(f.stack->artUv);

    for (const auto &[preset, recipe] : LightRecipe::of(manifest)) {
        for (const LightRecipe::Term &term : recipe.terms) {
            files.insert(lightPlate(name, term.plate));
            if (f.record) {
                files.insert(recordDir(name) + QLatin1Char('/') + term.plate + QStringLiteral("_spec.exr"));
                files.insert(recordDir(name) + QLatin1Char('/') + term.plate + QStringLiteral("_diffuse.exr"));
            }
            if (f.bounce) files.insert(bounceDir(name) + QLatin1Char('/') + term.plate + QStringLiteral(".exr"));
        }
        if (f.tonearm) {
            for (int i = 0; i < int(f.tonearm->yawSamples.size()); ++i) {
                files.insert(tonearmSprite(name, preset, i, SpriteKind::arm));
                if (f.tonearm->shadow.value_or(false)) files.insert(tonearmSprite(name, preset, i, SpriteKind::shadow));
                if (f.tonearm->reflection.value_or(false))
                    files.insert(tonearmSprite(name, preset, i, SpriteKind::reflection));
            }
        }
    }
    return QStringList(files.begin(), files.end());
}

namespace {

// `missing` for recipes read once for all framings.
QStringList missingFor(const QString &root, const PlateManifest &manifest, const QString &framing,
                       const std::map<QString, LightRecipe> &recipes)
{
    const auto it = manifest.framings.find(framing);
    if (it == manifest.framings.end()) return {};
    std::set<QString> essential{framingFile(framing, it->second.cover.mask),
                                framingFile(framing, it->second.label.mask)};
    for (const auto &[preset, recipe] : recipes)
        for (const LightRecipe::Term &term : recipe.terms) essential.insert(lightPlate(framing, term.plate));
    QStringList out;
    const QDir dir(root);
    for (const QString &file : essential)
        if (!QFileInfo::exists(dir.filePath(file))) out.append(file);
    return out;
}

}  // namespace

QStringList missing(const QString &root, const PlateManifest &manifest, const QString &framing)
{
    return missingFor(root, manifest, framing, LightRecipe::of(manifest));
}

QStringList installed(const QString &root, const PlateManifest &manifest, const QStringList &framings)
{
    const auto recipes = LightRecipe::of(manifest);
    QStringList out;
    for (const QString &name : framings)
        if (manifest.framings.count(name) && missingFor(root, manifest, name, recipes).isEmpty()) out.append(name);
    return out;
}

QStringList sections(const PlateManifest::Framing &f)
{
    QStringList out;
    const std::pair<bool, const char *> present[] = {
        {f.tonearm.has_value(), "tonearm"}, {f.front.has_value(), "front"},   {f.steam.has_value(), "steam"},
        {f.record.has_value(), "record"},   {f.bounce.has_value(), "bounce"}, {f.panel.has_value(), "panel"},
        {f.window.has_value(), "window"},   {f.stack.has_value(), "stack"}};
    for (const auto &[has, name] : present)
        if (has) out.append(QLatin1String(name));
    return out;
}

}  // namespace SceneFiles
