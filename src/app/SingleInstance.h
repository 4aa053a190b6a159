#pragma once

#include <QLocalServer>
#include <QObject>
#include <functional>

// One running room per user, build and display. Its socket and its start-up lock live in a
// folder only this user can enter (runtimeFolder()), so nobody else can take the name first.
// A start holds the lock while it looks for a running room and, finding none, starts listening:
// two starts at the same moment take turns and the second finds the first. A later start asks
// the running one to show itself and leaves. Either side believes the other only when the
// kernel says it is this same user. Main thread.
class SingleInstance : public QObject {
    Q_OBJECT
public:
    // `name`: distinct per build and display (defaultName()).
    explicit SingleInstance(const QString &name, QObject *parent = nullptr);

    // True when another room of this user already runs: it was told to show itself. Else this
    // process now listens, and `onActivated` fires whenever a later start knocks.
    bool alreadyRunning();
    std::function<void()> onActivated;

    // The socket's path once alreadyRunning() has looked; empty when no private folder was had.
    QString socketPath() const { return path; }

    // The name for this build and display.
    static QString defaultName();
    // $XDG_RUNTIME_DIR when it is this user's own 0700 folder, else Qt's /tmp/runtime-<user>
    // under the same rule, else a 0700 folder in the user's cache (someone else may have made
    // the one in /tmp first); empty when none of them can be had.
    static QString runtimeFolder();

private:
    bool knock() const;

    QString name;
    QString path;
    QLocalServer server;
};
