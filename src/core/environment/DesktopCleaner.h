#pragma once

#include "core/environment/DesktopPreferences.h"

#include <QObject>
#include <QString>
#include <memory>

class ProcessLauncher;
class Settings;

// Hides the desktop icons (and, where the desktop has them, widgets and click-to-show-desktop)
// by changing the desktop's own preferences and restarting the processes that read them.
// Before its first change it saves what the user had in the setting "desktopSnapshot";
// restore() puts exactly that back, unsetting keys that were unset.
//
// On a desktop without a preference back end nothing is touched, and statusText() says so.
//
// Main thread only; apply(), restore() and reload() block while the desktop's tools run.
class DesktopCleaner : public QObject {
    Q_OBJECT
public:
    struct Desired {
        bool hideIcons = false;
        bool hideWidgets = false;
        bool clickOnlyInStageManager = false;
        bool operator==(const Desired &) const = default;
        QString description() const;
    };

    // `settings` and `launcher` must outlive the cleaner; a null `prefs` means this desktop
    // has no back end. Reads the desktop's preferences once (reload()), blocking likewise.
    DesktopCleaner(Settings &settings, std::unique_ptr<DesktopPreferences> prefs, ProcessLauncher &launcher,
                   QObject *parent = nullptr);
    ~DesktopCleaner() override;

    static QString unavailableText();

    bool available() const { return prefs != nullptr; }
    // Empty while available; otherwise the text the Desktop settings show instead of the switches:
    // the desktop's own note when one was given, else unavailableText().
    QString statusText() const;
    // What to tell on a desktop whose icons the cleaner cannot hide, and why (Plasma's).
    void setUnavailableNote(const QString &note) { unavailableNote = note; }
    // Whether this desktop has anything that a control changes (Xfce has no widgets).
    bool supports(DesktopPreferences::Control control) const;

    // What the desktop's preferences say, as of creation or the last reload().
    Desired current() const { return now; }

    void reload();
    void apply(const Desired &desired);
    void restore();
    // Restarts the processes of the given domains, in the layout's order.
    void restart(const QStringList &domains);

signals:
    void currentChanged();

private:
    void saveSnapshotIfNeeded();
    static bool controlOn(const Desired &desired, DesktopPreferences::Control control);
    // The log's account of the written domains: which restarted, or that none needed to.
    QString outcome(const QStringList &written) const;

    Settings &settings;
    std::unique_ptr<DesktopPreferences> prefs;
    ProcessLauncher &launcher;
    Desired now;
    QString unavailableNote;
};
