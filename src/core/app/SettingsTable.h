#pragma once

#include <QList>
#include <QMetaType>
#include <QString>

// The user-facing side of the settings keys: for each key the type it is stored with, and the
// label and help line that every window showing it uses (through the translation system, with
// the English text as the key). The accessors of Settings stay the one place for defaults.
namespace SettingsTable {

enum class Type { boolean, integer, number, string, dictionary };

struct Row {
    const char *key;
    Type type;
    const char *label;  // untranslated; empty for keys without a control
    const char *help;   // untranslated; may be empty
};

const QList<Row> &rows();
// The row of a key; nullptr for a key outside the table.
const Row *find(const QString &key);
// Label and help, translated.
QString label(const QString &key);
QString help(const QString &key);
// The QMetaType id a value of this type is stored with.
int metaType(Type type);

}  // namespace SettingsTable
