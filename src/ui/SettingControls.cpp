#include "ui/SettingControls.h"

#include "core/app/Settings.h"
#include "core/app/SettingsTable.h"

#include <QBoxLayout>
#include <QCheckBox>
#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>

namespace SettingControls {

QLabel *addHelp(QBoxLayout *layout, const QString &text)
{
    if (text.isEmpty()) return nullptr;
    auto *label = new QLabel(text);
    label->setWordWrap(true);
    label->setForegroundRole(QPalette::PlaceholderText);
    QFont f = label->font();
    f.setPointSizeF(f.pointSizeF() * 0.9);
    label->setFont(f);
    label->setContentsMargins(24, 0, 0, 4);
    layout->addWidget(label);
    return label;
}

QLabel *addTitle(QBoxLayout *layout, const QString &text)
{
    auto *label = new QLabel(text);
    QFont f = label->font();
    f.setBold(true);
    label->setFont(f);
    label->setContentsMargins(0, 8, 0, 0);
    layout->addWidget(label);
    return label;
}

QCheckBox *addSwitch(QBoxLayout *layout, Settings &settings, const QString &key, std::function<bool()> get,
                     std::function<void(bool)> set)
{
    auto *box = new QCheckBox(SettingsTable::label(key));
    box->setObjectName(key);
    box->setChecked(get());
    if (!set) set = [&settings, key](bool on) { settings.setValue(key, on); };
    QObject::connect(box, &QCheckBox::toggled, box, [set](bool on) { set(on); });
    QObject::connect(&settings, &Settings::changed, box, [box, key, get](const QString &changed) {
        if (changed != key) return;
        const QSignalBlocker block(box);
        box->setChecked(get());
    });
    layout->addWidget(box);
    addHelp(layout, SettingsTable::help(key));
    return box;
}

QComboBox *addPicker(QBoxLayout *layout, Settings &settings, const QString &key,
                     const QList<std::pair<QString, QString>> &choices, std::function<QString()> get,
                     std::function<void(const QString &)> set)
{
    auto *row = new QHBoxLayout;
    auto *label = new QLabel(SettingsTable::label(key));
    auto *combo = new QComboBox;
    combo->setObjectName(key);
    label->setBuddy(combo);
    for (const auto &[value, title] : choices) combo->addItem(title, value);
    auto show = [combo, get] {
        const QSignalBlocker block(combo);
        combo->setCurrentIndex(std::max(0, combo->findData(get())));
    };
    show();
    if (!set) set = [&settings, key](const QString &value) { settings.setValue(key, value); };
    QObject::connect(combo, &QComboBox::activated, combo,
                     [combo, set](int index) { set(combo->itemData(index).toString()); });
    QObject::connect(&settings, &Settings::changed, combo, [key, show](const QString &changed) {
        if (changed == key) show();
    });
    row->addWidget(label);
    row->addWidget(combo, 1);
    layout->addLayout(row);
    addHelp(layout, SettingsTable::help(key));
    return combo;
}

}  // namespace SettingControls
