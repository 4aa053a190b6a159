#include "ui/GeneralTab.h"

#include "core/app/Settings.h"
#include "core/app/SettingsTable.h"
#include "core/environment/PowerMonitor.h"
#include "ui/SettingControls.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QVBoxLayout>

using namespace SettingControls;

GeneralTab::GeneralTab(const UiServices &services, QWidget *parent)
    : QWidget(parent)
    , s(services)
{
    auto *layout = new QVBoxLayout(this);
    Settings &st = *s.settings;

    addTitle(layout, tr("Room"));
    addSwitch(
        layout, st, QStringLiteral("showTurntable"), [&st] { return st.showTurntable(); },
        [this, &st](bool on) { s.setShowTurntable ? s.setShowTurntable(on) : st.setShowTurntable(on); });
    addPicker(
        layout, st, QStringLiteral("screens"),
        {{QStringLiteral("main"), tr("Main display")}, {QStringLiteral("all"), tr("All displays")}},
        [&st] { return st.allScreens() ? QStringLiteral("all") : QStringLiteral("main"); },
        [this, &st](const QString &v) {
            const bool all = v == QStringLiteral("all");
            s.setScreens ? s.setScreens(all) : st.setAllScreens(all);
        });

    addTitle(layout, tr("Turnelo"));
    addSwitch(
        layout, st, QStringLiteral("showMenuBarIcon"), [&st] { return st.showMenuBarIcon(); },
        [&st](bool on) { st.setShowMenuBarIcon(on); });
    if (s.launchAtLogin && s.setLaunchAtLogin) {
        // The login item lives outside the settings: its file is the truth.
        auto *login = new QCheckBox(tr("Open Turnelo at login"));
        login->setObjectName(QStringLiteral("launchAtLogin"));
        login->setChecked(s.launchAtLogin());
        connect(login, &QCheckBox::toggled, this, [this, login](bool on) {
            if (!s.setLaunchAtLogin(on)) {
                const QSignalBlocker block(login);
                login->setChecked(s.launchAtLogin());
            }
        });
        layout->addWidget(login);
        addHelp(layout, tr("Turnelo starts with your session and puts the room on the desktop."));
    }

    addTitle(layout, tr("Battery"));
    addSwitch(
        layout, st, QStringLiteral("ecoMode"), [&st] { return st.ecoMode(); },
        [this, &st](bool on) { s.power ? s.power->setEcoEnabled(on) : st.setEcoMode(on); });
    QList<std::pair<QString, QString>> triggers;
    for (PowerMonitor::Trigger t : PowerMonitor::triggers())
        triggers.append({PowerMonitor::rawValue(t), PowerMonitor::title(t)});
    addPicker(
        layout, st, QStringLiteral("ecoTrigger"), triggers, [&st] { return PowerMonitor::rawValue(st.ecoTrigger()); },
        [this, &st](const QString &v) {
            const auto t =
                v == QStringLiteral("lowPower") ? Settings::EcoTrigger::lowPower : Settings::EcoTrigger::battery;
            s.power ? s.power->setTrigger(t) : st.setEcoTrigger(t);
        });
    if (s.power) {
        auto *now = new QLabel(this);
        now->setForegroundRole(QPalette::PlaceholderText);
        auto show = [this, now] {
            if (!s.power->ecoActive())
                now->setText(tr("The saver is off now."));
            else
                now->setText(s.power->onBattery() ? tr("On battery: lighter animations.")
                                                  : tr("Low Power Mode: lighter animations."));
        };
        show();
        connect(s.power, &PowerMonitor::changed, now, show);
        layout->addWidget(now);
    }
    layout->addStretch();
}
