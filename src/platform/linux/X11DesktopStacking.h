#pragma once

#include "platform/linux/X11Connection.h"
#include "platform/linux/X11WindowTransparency.h"

#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QTimer>
#include <QWindow>

// Keeps the room's desktop windows where the room can be seen, next to another program's
// desktop icon window (a DESKTOP client that is not ours), judged by what it shows
// (X11WindowTransparency):
// - a see-through one (GNOME's desktop icons, Nemo when composited) is transparent between its
//   icons: the room stays below it, and is lowered again whenever the stacking list shows the
//   icon window below it (those programs lower themselves when they map);
// - an opaque one (xfdesktop, Caja, pcmanfm, Plasma's 32-bit desktop that paints its wallpaper)
//   hides what lies below it, so the room sits above it, saying so once in the log. A window
//   that keeps coming back above the room (another program that wants the same place) is left
//   there after a few tries, said once in the log: the coverage probe then pauses the room;
// - with none (openbox, fluxbox) the room is lowered to the bottom once.
// Windows that bypass the manager (override-redirect, under i3) are lowered to the bottom of
// the root window's children on every stacking change. Its own X connection; main thread only.
class X11DesktopStacking : public QObject {
    Q_OBJECT
public:
    // An empty name opens $DISPLAY.
    explicit X11DesktopStacking(const QByteArray &displayName = {}, QObject *parent = nullptr);

    // A prepared desktop window (X11DesktopWindow::prepare), shown or not yet.
    void add(QWindow *window);
    void remove(QWindow *window);

private:
    using XWindow = X11Connection::XWindow;

    void restackSoon();
    void restack();
    bool isOurs(XWindow client);
    void requestRestack(XWindow window, XWindow sibling, bool above);
    void lowerBypassing(XWindow window);
    // Whether to raise ours above `icons` once more; false once it came back too often.
    bool mayRaiseAbove(XWindow icons, const QString &program);

    X11Connection x;
    X11WindowTransparency transparency{x};
    QTimer recheck;  // a 32-bit icon window is looked at again, since what it shows may change
    QList<QPointer<QWindow>> windows;
    QSet<XWindow> loweredOnce;
    bool restackScheduled = false;
    bool toldOpaque = false;
    struct Raises {
        int count = 0;
        QElapsedTimer since;
    };
    QHash<XWindow, Raises> raises;
    QSet<XWindow> yieldedTo;
};
