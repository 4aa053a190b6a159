#include "core/app/SettingsTable.h"

#include <QCoreApplication>

namespace SettingsTable {

const QList<Row> &rows()
{
    using enum Type;
    static const QList<Row> table{
        {"showMenuBarIcon", boolean, QT_TRANSLATE_NOOP("SettingsTable", "Show Turnelo in the panel"),
         QT_TRANSLATE_NOOP("SettingsTable",
                           "When hidden, open Turnelo again from the applications menu to see these settings.")},
        {"showTurntable", boolean, QT_TRANSLATE_NOOP("SettingsTable", "Show the turntable on the desktop"), ""},
        {"screens", string, QT_TRANSLATE_NOOP("SettingsTable", "Displays"),
         QT_TRANSLATE_NOOP("SettingsTable",
                           "With several displays, each one shows the same room in the chosen framing.")},
        {"framing", string, QT_TRANSLATE_NOOP("SettingsTable", "Framing"),
         QT_TRANSLATE_NOOP("SettingsTable", "How close the camera stands to the record player.")},
        {"lightPreset", string, QT_TRANSLATE_NOOP("SettingsTable", "Light"),
         QT_TRANSLATE_NOOP("SettingsTable", "Automatic follows the clock from morning to night.")},
        {"steam", boolean, QT_TRANSLATE_NOOP("SettingsTable", "Steam"),
         QT_TRANSLATE_NOOP("SettingsTable", "Steam rises from the cup on the desk.")},
        {"fxRecord", boolean, QT_TRANSLATE_NOOP("SettingsTable", "Live record"),
         QT_TRANSLATE_NOOP("SettingsTable", "The record turns and its grooves show the album’s tracks.")},
        {"fxBounce", boolean, QT_TRANSLATE_NOOP("SettingsTable", "Album color"),
         QT_TRANSLATE_NOOP("SettingsTable", "The room picks up a little of the album’s color.")},
        {"fxWeather", boolean, QT_TRANSLATE_NOOP("SettingsTable", "Rain"),
         QT_TRANSLATE_NOOP("SettingsTable", "When it rains in your city, it rains on the window.")},
        {"fxStack", boolean, QT_TRANSLATE_NOOP("SettingsTable", "Record stack"),
         QT_TRANSLATE_NOOP("SettingsTable", "The covers of the albums played before lie on the desk.")},
        {"fxPanel", boolean, QT_TRANSLATE_NOOP("SettingsTable", "LEDs and strobe"),
         QT_TRANSLATE_NOOP("SettingsTable", "Speed LED and strobe light up while music plays.")},
        {"stackLimit", integer, QT_TRANSLATE_NOOP("SettingsTable", "Record stack"),
         QT_TRANSLATE_NOOP("SettingsTable", "albums kept, on this computer only.")},
        {"musicSetupDone", boolean, QT_TRANSLATE_NOOP("SettingsTable", "Follow the music players"),
         QT_TRANSLATE_NOOP("SettingsTable",
                           "Turnelo only reads what the players publish: track, album, cover and position.")},
        {"onboardingDone", boolean, "", ""},
        {"ecoMode", boolean, QT_TRANSLATE_NOOP("SettingsTable", "Turn on battery saver"),
         QT_TRANSLATE_NOOP("SettingsTable", "Animations run at 15 frames per second; steam and rain hold still.")},
        {"ecoTrigger", string, QT_TRANSLATE_NOOP("SettingsTable", "Saver engages"), ""},
        {"weatherCity", string, QT_TRANSLATE_NOOP("SettingsTable", "City"),
         QT_TRANSLATE_NOOP("SettingsTable", "The rain on the window follows the live weather of this city.")},
        {"weatherLatitude", number, QT_TRANSLATE_NOOP("SettingsTable", "Latitude"),
         QT_TRANSLATE_NOOP("SettingsTable", "With both coordinates set, they replace the city’s.")},
        {"weatherLongitude", number, QT_TRANSLATE_NOOP("SettingsTable", "Longitude"),
         QT_TRANSLATE_NOOP("SettingsTable", "With both coordinates set, they replace the city’s.")},
        {"desktopSnapshot", dictionary, "", ""},
        {"sceneCatalogETag", string, "", ""},
    };
    return table;
}

const Row *find(const QString &key)
{
    for (const Row &row : rows())
        if (key == QLatin1String(row.key)) return &row;
    return nullptr;
}

QString label(const QString &key)
{
    const Row *row = find(key);
    return row ? QCoreApplication::translate("SettingsTable", row->label) : QString();
}

QString help(const QString &key)
{
    const Row *row = find(key);
    return row && *row->help ? QCoreApplication::translate("SettingsTable", row->help) : QString();
}

int metaType(Type type)
{
    switch (type) {
    case Type::boolean:
        return QMetaType::Bool;
    case Type::integer:
        return QMetaType::Int;
    case Type::number:
        return QMetaType::Double;
    case Type::string:
        return QMetaType::QString;
    case Type::dictionary:
        return QMetaType::QVariantMap;
    }
    return QMetaType::UnknownType;
}

}  // namespace SettingsTable
