#include "core/environment/DesktopCleaner.h"

#include "core/app/Log.h"
#include "core/environment/ProcessLauncher.h"
#include "core/app/Settings.h"

#include <algorithm>

namespace {

using Control = DesktopPreferences::Control;
using Setting = DesktopPreferences::Setting;

const QString existsField = QStringLiteral("exists");
const QString valueField = QStringLiteral("value");

// Values compare in the setting's own type: a snapshot read back from the settings file may
// hold 0 as a 64-bit integer where the store says int.
bool same(const QVariant &a, const QVariant &b, const Setting &setting)
{
    const QMetaType type = setting.cleanValue.metaType();
    QVariant x = a;
    QVariant y = b;
    x.convert(type);
    y.convert(type);
    return x == y;
}

QString domainList(QStringList domains)
{
    domains.sort();
    for (QString &d : domains) d = QLatin1Char('"') + d + QLatin1Char('"');
    return QLatin1Char('[') + domains.join(QStringLiteral(", ")) + QLatin1Char(']');
}

void addOnce(QStringList &list, const QString &item)
{
    if (!list.contains(item)) list.append(item);
}

}  // namespace

QString DesktopCleaner::Desired::description() const
{
    const auto b = [](bool on) { return on ? QStringLiteral("true") : QStringLiteral("false"); };
    return QStringLiteral("Desired(hideIcons: %1, hideWidgets: %2, clickOnlyInStageManager: %3)")
        .arg(b(hideIcons), b(hideWidgets), b(clickOnlyInStageManager));
}

DesktopCleaner::DesktopCleaner(Settings &settings, std::unique_ptr<DesktopPreferences> prefs, ProcessLauncher &launcher,
                               QObject *parent)
    : QObject(parent)
    , settings(settings)
    , prefs(std::move(prefs))
    , launcher(launcher)
{
    // The windows show current() from their first look on.
    reload();
}

DesktopCleaner::~DesktopCleaner() = default;

QString DesktopCleaner::unavailableText()
{
    return QStringLiteral("Hiding desktop icons is not available on this desktop.");
}

QString DesktopCleaner::statusText() const
{
    if (available()) return {};
    return unavailableNote.isEmpty() ? unavailableText() : unavailableNote;
}

bool DesktopCleaner::supports(Control control) const
{
    if (!prefs) return false;
    const auto &settings = prefs->layout().settings;
    return std::any_of(settings.begin(), settings.end(), [control](const Setting &s) { return s.control == control; });
}

bool DesktopCleaner::controlOn(const Desired &desired, Control control)
{
    switch (control) {
    case Control::hideIcons:
        return desired.hideIcons;
    case Control::hideWidgets:
        return desired.hideWidgets;
    case Control::clickOnlyInStageManager:
        return desired.clickOnlyInStageManager;
    }
    return false;
}

void DesktopCleaner::reload()
{
    Desired next;
    if (prefs) {
        // The first setting of a control is the one the desktop really obeys.
        for (const Control control : {Control::hideIcons, Control::hideWidgets, Control::clickOnlyInStageManager}) {
            for (const Setting &s : prefs->layout().settings) {
                if (s.control != control) continue;
                const QVariant value = prefs->read(s).value_or(s.absentValue);
                const bool on = same(value, s.cleanValue, s);
                switch (control) {
                case Control::hideIcons:
                    next.hideIcons = on;
                    break;
                case Control::hideWidgets:
                    next.hideWidgets = on;
                    break;
                case Control::clickOnlyInStageManager:
                    next.clickOnlyInStageManager = on;
                    break;
                }
                break;
            }
        }
    }
    if (next == now) return;
    now = next;
    emit currentChanged();
}

void DesktopCleaner::saveSnapshotIfNeeded()
{
    if (settings.desktopSnapshot()) return;
    QVariantMap snapshot;
    for (const Setting &s : prefs->layout().settings) {
        const auto value = prefs->read(s);
        QVariantMap entry{{existsField, value.has_value()}};
        if (value) entry.insert(valueField, *value);
        QVariantMap domain = snapshot.value(s.domain).toMap();
        domain.insert(s.key, entry);
        snapshot.insert(s.domain, domain);
    }
    settings.setDesktopSnapshot(snapshot);
}

void DesktopCleaner::apply(const Desired &desired)
{
    if (!prefs) {
        Log::write(QStringLiteral("Mesa limpa: indisponível neste ambiente de trabalho"));
        return;
    }
    saveSnapshotIfNeeded();
    QStringList written;
    for (const Setting &s : prefs->layout().settings) {
        const bool on = controlOn(desired, s.control);
        const QVariant target = on ? s.cleanValue : s.plainValue;
        const auto value = prefs->read(s);
        // An unset key is only ever set to hide something; when showing, only a key that holds
        // the hiding value is changed, so a setting the user chose otherwise is kept.
        const bool write = value ? !same(*value, target, s) && (on || same(*value, s.cleanValue, s)) : on;
        if (!write) continue;
        prefs->write(s, target);
        addOnce(written, s.domain);
    }
    restart(written);
    reload();
    Log::write(QStringLiteral("Mesa limpa: ") + desired.description() + QStringLiteral(" (") + outcome(written) +
               QLatin1Char(')'));
}

void DesktopCleaner::restore()
{
    if (!prefs) {
        Log::write(QStringLiteral("Mesa limpa: indisponível neste ambiente de trabalho"));
        return;
    }
    QStringList changed;
    if (const auto snapshot = settings.desktopSnapshot()) {
        for (const Setting &s : prefs->layout().settings) {
            const QVariant saved = snapshot->value(s.domain).toMap().value(s.key);
            if (!saved.isValid()) continue;  // not recorded (a snapshot from another desktop): leave it
            const QVariantMap entry = saved.toMap();
            const auto value = prefs->read(s);
            if (entry.value(existsField).toBool()) {
                const QVariant before = entry.value(valueField);
                if (value && same(*value, before, s)) continue;
                QVariant typed = before;
                typed.convert(s.cleanValue.metaType());
                prefs->write(s, typed);
            } else {
                if (!value) continue;
                prefs->remove(s);
            }
            addOnce(changed, s.domain);
        }
        restart(changed);
        settings.setDesktopSnapshot(std::nullopt);
    }
    reload();
    Log::write(QStringLiteral("Mesa limpa: restaurado (") + outcome(changed) + QLatin1Char(')'));
}

QString DesktopCleaner::outcome(const QStringList &written) const
{
    const auto &domains = prefs->layout().domains;
    // A desktop that follows its settings live (GNOME's icons extension) restarts nothing.
    if (std::all_of(domains.begin(), domains.end(),
                    [](const DesktopPreferences::Domain &d) { return d.program.isEmpty(); }))
        return QStringLiteral("gravou ") + domainList(written) + QStringLiteral("; nada a reiniciar");
    QStringList restarted;
    for (const DesktopPreferences::Domain &d : domains)
        if (written.contains(d.domain) && !d.program.isEmpty()) restarted.append(d.domain);
    return QStringLiteral("reiniciou ") + domainList(restarted);
}

void DesktopCleaner::restart(const QStringList &domains)
{
    if (!prefs) return;
    for (const DesktopPreferences::Domain &d : prefs->layout().domains) {
        if (!domains.contains(d.domain) || d.program.isEmpty()) continue;
        if (const auto error = launcher.run(d.program, d.arguments))
            Log::write(QStringLiteral("Mesa limpa: ") + d.program + QStringLiteral(" falhou: ") + *error);
    }
}
