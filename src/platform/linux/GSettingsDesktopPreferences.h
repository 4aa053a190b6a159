#pragma once

#include "core/environment/DesktopPreferences.h"
#include "platform/linux/PreferenceTool.h"

// GNOME: the shell draws no desktop icons itself; the Desktop Icons NG extension does, after
// its gsettings schema "org.gnome.shell.extensions.ding", and follows changes to it live, so
// nothing is restarted. Its keys hide the home, trash and volume icons; files in ~/Desktop stay.
//
// gsettings shows a default and a stored value alike, so every key reads as set; restoring
// writes the old value back rather than unsetting it.
class GSettingsDesktopPreferences : public DesktopPreferences {
public:
    // `schemaDirectory`: an extra compiled-schema folder (extensions installed per user keep
    // their schema there); empty for the system's.
    explicit GSettingsDesktopPreferences(QString schemaDirectory = {});

    static const QString schema;

    // Whether gsettings is installed and knows the extension's schema.
    bool usable() const;
    // The first installed copy of the extension that carries its own compiled schema.
    static QString extensionSchemaDirectory();

    const Layout &layout() const override;
    std::optional<QVariant> read(const Setting &setting) override;
    void write(const Setting &setting, const QVariant &value) override;
    void remove(const Setting &setting) override;

private:
    QStringList arguments(QStringList rest) const;

    PreferenceTool tool;
    QString schemaDirectory;
};
