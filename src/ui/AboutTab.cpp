#include "ui/AboutTab.h"

#include "core/app/AppIdentity.h"
#include "core/app/Settings.h"
#include "core/delivery/SceneInstaller.h"
#include "core/delivery/Updates.h"
#include "core/scene/SceneLocation.h"
#include "core/scene/SceneStatus.h"
#include "ui/PopoverModel.h"
#include "ui/SettingControls.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

using namespace SettingControls;

namespace {

QLabel *selectable(QLayout *layout)
{
    auto *label = new QLabel;
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(label);
    return label;
}

}  // namespace

AboutTab::AboutTab(const UiServices &services, QWidget *parent)
    : QWidget(parent)
    , s(services)
{
    auto *layout = new QVBoxLayout(this);
    addTitle(layout, AppIdentity::appName());
    version = selectable(layout);
    version->setObjectName(QStringLiteral("version"));

    addTitle(layout, tr("Scene"));
    scene = selectable(layout);
    scene->setObjectName(QStringLiteral("scene"));

    addTitle(layout, tr("Log"));
    auto *log = selectable(layout);
    log->setText(s.logPath);
    auto *row = new QHBoxLayout;
    auto *open = new QPushButton(tr("Open Log"));
    open->setEnabled(bool(s.openLog));
    connect(open, &QPushButton::clicked, this, [this] { s.openLog(); });
    auto *welcome = new QPushButton(tr("Show Welcome Again…"));
    welcome->setEnabled(bool(s.showOnboarding));
    connect(welcome, &QPushButton::clicked, this, [this] { s.showOnboarding(1); });
    row->addWidget(open);
    row->addWidget(welcome);
    row->addStretch();
    layout->addLayout(row);
    layout->addStretch();

    if (s.installer) {
        connect(s.installer, &SceneInstaller::runFinished, this, &AboutTab::refresh);
        connect(s.installer, &SceneInstaller::sceneTitleChanged, this, &AboutTab::refresh);
        connect(s.installer, &SceneInstaller::phaseChanged, this, &AboutTab::refresh);
    }
    if (s.status) connect(s.status, &SceneStatus::changed, this, &AboutTab::refresh);
    connect(s.settings, &Settings::changed, this, &AboutTab::refresh);
    refresh();
}

void AboutTab::refresh()
{
    QStringList lines{tr("Version %1").arg(AppIdentity::version())};
    const auto newer = s.installer && s.installer->catalog()
                           ? Updates::newerVersion(*s.installer->catalog(), AppIdentity::version())
                           : std::nullopt;
    lines << (newer ? tr("Turnelo %1 is available; your package manager installs it.").arg(*newer)
                    : tr("This is the newest version the content service knows."));
    version->setText(lines.join(QLatin1Char('\n')));

    QStringList about;
    if (s.installer && s.installer->sceneTitle()) about << *s.installer->sceneTitle();
    if (s.status && s.status->manifest() && s.status->manifest()->scenario)
        about << tr("Scenario: %1").arg(*s.status->manifest()->scenario);
    const QString source = s.status ? s.status->source() : QString();
    about << (source.isEmpty() ? tr("No scene loaded") : tr("From %1").arg(source));
    if (s.status && s.status->problem()) {
        // The log's words, for a report: the user's sentence comes first.
        about << PopoverModel::sceneLine(s.status, s.installer);
        about << tr("Technical detail: %1").arg(s.status->problem()->detail);
    }
    // The room on screen is known already: only where it lies is looked up, not read again.
    if (const auto origin = SceneLocation::originOf(source)) {
        switch (*origin) {
        case SceneLocation::Origin::development:
            about << tr("A development scene folder is in use (TURNELO_SCENES_DIR).");
            break;
        case SceneLocation::Origin::installed:
            about << tr("Downloaded by Turnelo.");
            break;
        case SceneLocation::Origin::bundled:
            about << tr(
                "The room that came with Turnelo; a newer one is downloaded when the content service offers it.");
            break;
        }
    }
    about << tr("Content service: %1").arg(s.settings->contentServiceURL());
    scene->setText(about.join(QLatin1Char('\n')));
}
