#pragma once

#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <optional>

// The desktop's own preference store, as far as the desktop cleaner changes it: which settings
// hide what on this desktop, how to make the desktop process pick them up, and typed access to
// them. One implementation per desktop (Xfce's xfconf, GNOME's gsettings, macOS defaults).
//
// Main thread only; every call may block on a short-lived tool.
class DesktopPreferences {
public:
    // What a setting stands for, from the user's point of view.
    enum class Control { hideIcons, hideWidgets, clickOnlyInStageManager };

    struct Setting {
        QString domain;  // preference domain, xfconf channel or gsettings schema
        QString key;
        Control control;
        QVariant cleanValue;   // written while the control is on; its type is the setting's type
        QVariant plainValue;   // written when the control is off and the key holds cleanValue
        QVariant absentValue;  // what the desktop does while the key is absent
    };

    // The process that reads a domain, and the command that makes it read again. An empty
    // program means the desktop picks up changes by itself.
    struct Domain {
        QString domain;
        QString program;
        QStringList arguments;
    };

    struct Layout {
        QList<Setting> settings;  // in the order they are applied
        QList<Domain> domains;    // in the order their processes restart
    };

    virtual ~DesktopPreferences() = default;

    virtual const Layout &layout() const = 0;

    // The stored value, converted to the type of the setting's cleanValue; absent when the key
    // is not set (or cannot be read, which is logged).
    virtual std::optional<QVariant> read(const Setting &setting) = 0;
    virtual void write(const Setting &setting, const QVariant &value) = 0;
    // Unsets the key, so that the desktop falls back to its own default.
    virtual void remove(const Setting &setting) = 0;
};
