#pragma once

#include "platform/linux/X11Connection.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QWindow>

// Keeps the room's desktop windows where the room can be seen, next to another program's
// desktop icon window (a DESKTOP client that is not ours):
// - a 32-bit one (GNOME's desktop icons, Nemo when composited) is transparent between its
//   icons: the room stays below it, and is lowered again whenever the stacking list shows the
//   icon window below it (those programs lower themselves when they map);
// - an opaque one (xfdesktop, Caja, pcmanfm) paints the wallpaper with the icons: below it the
//   room would never show, so it sits above it, saying so once in the log;
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

    X11Connection x;
    QList<QPointer<QWindow>> windows;
    QSet<XWindow> loweredOnce;
    bool restackScheduled = false;
    bool toldOpaque = false;
};
