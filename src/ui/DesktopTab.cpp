#include "ui/DesktopTab.h"

#include "core/app/Settings.h"
#include "core/environment/DesktopCleaner.h"
#include "ui/SettingControls.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>

using namespace SettingControls;
using Control = DesktopPreferences::Control;

DesktopTab::DesktopTab(const UiServices &services, QWidget *parent)
    : QWidget(parent)
    , s(services)
{
    auto *layout = new QVBoxLayout(this);
    addTitle(layout, tr("A Clean Desk"));
    addHelp(layout, tr("The room is best seen on a clean desk. Turnelo changes your desktop’s own settings and "
                       "keeps what you had, so you can put it back."));
    if (!s.cleaner || !s.cleaner->available()) {
        auto *why = new QLabel(s.cleaner ? s.cleaner->statusText() : DesktopCleaner::unavailableText());
        why->setObjectName(QStringLiteral("cleanerStatus"));
        why->setWordWrap(true);
        layout->addWidget(why);
        layout->addStretch();
        return;
    }
    icons = new QCheckBox(tr("Hide desktop icons"));
    icons->setObjectName(QStringLiteral("hideIcons"));
    layout->addWidget(icons);
    widgets = new QCheckBox(tr("Hide desktop widgets"));
    widgets->setObjectName(QStringLiteral("hideWidgets"));
    widgets->setVisible(s.cleaner->supports(Control::hideWidgets));
    layout->addWidget(widgets);
    click = new QCheckBox(tr("Show the desktop only from its shortcut"));
    click->setObjectName(QStringLiteral("clickOnlyInStageManager"));
    click->setVisible(s.cleaner->supports(Control::clickOnlyInStageManager));
    layout->addWidget(click);
    if (click->isVisible()) addHelp(layout, tr("Otherwise one click on the turntable pushes every window aside."));

    auto *row = new QHBoxLayout;
    apply = new QPushButton(tr("Apply…"));
    apply->setObjectName(QStringLiteral("apply"));
    restore = new QPushButton(tr("Put Back…"));
    restore->setObjectName(QStringLiteral("restore"));
    row->addWidget(apply);
    row->addWidget(restore);
    row->addStretch();
    layout->addLayout(row);
    layout->addStretch();

    connect(apply, &QPushButton::clicked, this,
            [this] { confirmAndApply(this, s, icons->isChecked(), widgets->isChecked(), click->isChecked()); });
    connect(restore, &QPushButton::clicked, this, [this] {
        QMessageBox ask(QMessageBox::Question, tr("Put the desktop back as it was?"),
                        tr("Put the desktop back as it was?"), QMessageBox::Cancel, this);
        ask.addButton(tr("Put Back"), QMessageBox::AcceptRole);
        ask.exec();
        if (ask.buttonRole(ask.clickedButton()) == QMessageBox::AcceptRole) s.cleaner->restore();
    });
    connect(s.cleaner, &DesktopCleaner::currentChanged, this, &DesktopTab::refresh);
    connect(s.settings, &Settings::changed, this, [this](const QString &key) {
        if (key == QStringLiteral("desktopSnapshot")) refresh();
    });
    refresh();
}

bool DesktopTab::confirmAndApply(QWidget *parent, const UiServices &s, bool hideIcons, bool hideWidgets, bool clickOnly)
{
    if (!s.cleaner || !s.cleaner->available()) return false;
    const DesktopCleaner::Desired desired{hideIcons, hideWidgets, clickOnly};
    if (desired == s.cleaner->current()) return true;
    const bool first = !s.settings->desktopSnapshot();
    QMessageBox ask(QMessageBox::Question, tr("Clear the desk"),
                    first ? tr("Restart the desktop to clear the desk?") : tr("Restart the desktop to apply?"),
                    QMessageBox::Cancel, parent);
    ask.setInformativeText(tr("The desktop restarts for a moment. Its icons and open folders come back; nothing is "
                              "deleted."));
    ask.addButton(first ? tr("Clear and Restart") : tr("Restart"), QMessageBox::AcceptRole);
    ask.exec();
    if (ask.buttonRole(ask.clickedButton()) != QMessageBox::AcceptRole) return false;
    s.cleaner->apply(desired);
    return true;
}

void DesktopTab::showEvent(QShowEvent *event)
{
    // Changes made in the desktop's own settings show here.
    if (s.cleaner && s.cleaner->available()) s.cleaner->reload();
    QWidget::showEvent(event);
}

void DesktopTab::refresh()
{
    const DesktopCleaner::Desired now = s.cleaner->current();
    icons->setChecked(now.hideIcons);
    widgets->setChecked(now.hideWidgets);
    click->setChecked(now.clickOnlyInStageManager);
    restore->setEnabled(s.settings->desktopSnapshot().has_value());
}
