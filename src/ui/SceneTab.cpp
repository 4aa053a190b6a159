#include "ui/SceneTab.h"

#include "core/app/Settings.h"
#include "core/app/SettingsTable.h"
#include "core/delivery/SceneInstaller.h"
#include "core/environment/WeatherService.h"
#include "core/lighting/LightMixer.h"
#include "core/scene/SceneStatus.h"
#include "ui/PopoverModel.h"
#include "ui/SettingControls.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QDoubleValidator>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

using namespace SettingControls;

namespace {

// An optional coordinate: empty text removes it.
QLineEdit *coordinateField(Settings &st, const QString &key, double limit)
{
    auto *edit = new QLineEdit;
    edit->setObjectName(key);
    edit->setPlaceholderText(QCoreApplication::translate("SceneTab", "from the city"));
    auto *validator = new QDoubleValidator(-limit, limit, 4, edit);
    validator->setLocale(QLocale::c());
    edit->setValidator(validator);
    auto show = [edit, &st, key] {
        const QVariant v = st.value(key);
        edit->setText(v.isValid() && v.canConvert<double>() ? QString::number(v.toDouble(), 'f', 4) : QString());
    };
    show();
    QObject::connect(edit, &QLineEdit::editingFinished, edit, [edit, &st, key] {
        bool ok = false;
        const double value = edit->text().toDouble(&ok);
        if (edit->text().trimmed().isEmpty())
            st.remove(key);
        else if (ok)
            st.setValue(key, value);
    });
    QObject::connect(&st, &Settings::changed, edit, [show, key](const QString &changed) {
        if (changed == key) show();
    });
    return edit;
}

}  // namespace

SceneTab::SceneTab(const UiServices &services, QWidget *parent)
    : QWidget(parent)
    , s(services)
{
    auto *layout = new QVBoxLayout(this);
    Settings &st = *s.settings;

    addTitle(layout, tr("Room"));
    framing = addPicker(
        layout, st, QStringLiteral("framing"), {}, [&st] { return st.framing(); },
        [&st](const QString &v) { st.setFraming(v); });
    QList<std::pair<QString, QString>> lights{{QStringLiteral("auto"), tr("Automatic (follows the clock)")}};
    for (const QString &p : PlateManifest::canonicalPresets()) lights.append({p, LightPresets::name(p)});
    addPicker(
        layout, st, QStringLiteral("lightPreset"), lights, [&st] { return st.lightPreset(); },
        [&st](const QString &v) { st.setLightPreset(v); });
    // Where the popover sends the user when the room is unavailable: the same words, beside the button.
    problem = new QLabel;
    problem->setObjectName(QStringLiteral("sceneProblem"));
    problem->setWordWrap(true);
    layout->addWidget(problem);
    auto *reload = new QPushButton(tr("Reload Scene"));
    reload->setEnabled(bool(s.reloadScene));
    connect(reload, &QPushButton::clicked, this, [this] { s.reloadScene(); });
    auto *reloadRow = new QHBoxLayout;
    reloadRow->addWidget(reload);
    reloadRow->addStretch();
    layout->addLayout(reloadRow);
    addHelp(layout, tr("Use it if the scene doesn’t show up after switching displays."));

    addTitle(layout, tr("Effects"));
    const std::pair<const char *, bool (Settings::*)() const> effects[] = {
        {"fxRecord", &Settings::fxRecord}, {"fxBounce", &Settings::fxBounce}, {"fxPanel", &Settings::fxPanel},
        {"fxStack", &Settings::fxStack},   {"steam", &Settings::steam},       {"fxWeather", &Settings::fxWeather}};
    for (const auto &[key, get] : effects)
        addSwitch(layout, st, QString::fromLatin1(key), [&st, get = get] { return (st.*get)(); });

    QList<std::pair<QString, QString>> cities;
    for (const WeatherService::City &c : WeatherService::cities()) cities.append({c.id, c.name()});
    addPicker(
        layout, st, QStringLiteral("weatherCity"), cities, [&st] { return WeatherService::city(st).id; },
        [&st](const QString &v) { st.setWeatherCity(v); });
    auto *coordinates = new QHBoxLayout;
    for (const auto &[key, limit] :
         {std::pair{QStringLiteral("weatherLatitude"), 90.0}, std::pair{QStringLiteral("weatherLongitude"), 180.0}}) {
        coordinates->addWidget(new QLabel(SettingsTable::label(key)));
        coordinates->addWidget(coordinateField(st, key, limit), 1);
    }
    layout->addLayout(coordinates);
    addHelp(layout, SettingsTable::help(QStringLiteral("weatherLatitude")));

    if (s.installer) {
        addTitle(layout, tr("Download"));
        download = new QLabel;
        download->setObjectName(QStringLiteral("download"));
        download->setWordWrap(true);
        layout->addWidget(download);
        auto *check = new QPushButton(tr("Check Now"));
        connect(check, &QPushButton::clicked, this, [this] { s.installer->sync(); });
        auto *row = new QHBoxLayout;
        row->addWidget(check);
        row->addStretch();
        layout->addLayout(row);
        connect(s.installer, &SceneInstaller::phaseChanged, this, &SceneTab::refreshDownload);
        connect(s.installer, &SceneInstaller::phaseChanged, this, &SceneTab::refreshProblem);
        connect(s.installer, &SceneInstaller::noticeChanged, this, &SceneTab::refreshDownload);
        // A run's error is known only once it ends, after its last phase change.
        connect(s.installer, &SceneInstaller::runFinished, this, &SceneTab::refreshDownload);
        connect(s.installer, &SceneInstaller::framingsChanged, this, &SceneTab::refreshFramings);
    }
    if (s.status) {
        connect(s.status, &SceneStatus::changed, this, &SceneTab::refreshFramings);
        connect(s.status, &SceneStatus::changed, this, &SceneTab::refreshProblem);
    }
    layout->addStretch();
    refreshFramings();
    refreshDownload();
    refreshProblem();
}

void SceneTab::refreshProblem()
{
    // Without a room the Download section below says what the installer does.
    const auto &why = s.status ? s.status->problem() : std::nullopt;
    const bool shown = why && (why->reason != SceneStatus::Reason::noScene || !s.installer);
    const QString text = shown ? PopoverModel::sceneLine(s.status, s.installer) : QString();
    problem->setText(text);
    problem->setVisible(!text.isEmpty());
}

void SceneTab::refreshFramings()
{
    const QSignalBlocker block(framing);
    framing->clear();
    // Only framings on disk can be chosen here; the popover's tiles download the others.
    QStringList names = s.status ? s.status->installedFramings() : QStringList();
    if (!names.contains(s.settings->framing())) names.prepend(s.settings->framing());
    for (const QString &name : names) framing->addItem(PlateManifest::framingDisplayName(name), name);
    framing->setCurrentIndex(std::max(0, framing->findData(s.settings->framing())));
}

void SceneTab::refreshDownload()
{
    if (!download) return;  // made only with an installer
    // The popover's words, so both say the same.
    QStringList lines;
    if (const QString line = PopoverModel::installerLine(s.installer); !line.isEmpty()) lines << line;
    const bool ready = s.installer->phase().kind == SceneInstaller::Phase::ready;
    // After a failed check nobody knows whether the room is still the newest.
    const bool checked = s.installer->lastRunError().isEmpty();
    if (lines.isEmpty()) {
        const QString title = s.installer->sceneTitle().value_or(tr("installed"));
        if (ready && !s.installer->hasInstalledScene())
            lines << tr("The room that came with Turnelo is shown.");
        else if (ready)
            lines << (checked ? tr("The room is up to date: %1.") : tr("Installed room: %1.")).arg(title);
        else if (!s.installer->hasInstalledScene())
            lines << tr("No room is installed yet.");
    }
    if (ready && !checked) lines << tr("The last check failed; Turnelo will try again later.");
    download->setText(lines.join(QLatin1Char('\n')));
}
