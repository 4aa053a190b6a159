#pragma once

#include <QLocalServer>
#include <QObject>
#include <functional>

// One running room per user, build and display: the first process listens on a local socket; a later
// start finds it, asks it to show itself and leaves. Main thread.
class SingleInstance : public QObject {
    Q_OBJECT
public:
    // `name`: distinct per user and build flavour.
    explicit SingleInstance(const QString &name, QObject *parent = nullptr);

    // True when another process already runs: it was told to show itself. Else this process
    // now listens, and `onActivated` fires whenever a later start knocks.
    bool alreadyRunning();
    std::function<void()> onActivated;

    // The socket name for this user, build and display.
    static QString defaultName();

private:
    QString name;
    QLocalServer server;
};
