#pragma once

#include <QString>
#include <functional>

class QBoxLayout;
class QCheckBox;
class QComboBox;
class QLabel;
class QWidget;
class Settings;

// Controls bound to one settings key: label and help from the settings table, written when the
// user changes them, and set again whenever the key changes elsewhere (another window, another
// process). Each reads through the typed getter, so defaults stay the accessors' business.
namespace SettingControls {

// A switch; `set` defaults to storing the Boolean under `key`.
QCheckBox *addSwitch(QBoxLayout *layout, Settings &settings, const QString &key, std::function<bool()> get,
                     std::function<void(bool)> set = {});

// A picker of (value, title) choices; `set` defaults to storing the value text under `key`.
QComboBox *addPicker(QBoxLayout *layout, Settings &settings, const QString &key,
                     const QList<std::pair<QString, QString>> &choices, std::function<QString()> get,
                     std::function<void(const QString &)> set = {});

// The key's help line under a control, or nothing when the key has none.
QLabel *addHelp(QBoxLayout *layout, const QString &text);

// A bold group title.
QLabel *addTitle(QBoxLayout *layout, const QString &text);

}  // namespace SettingControls
