#include "platform/linux/X11DesktopStacking.h"

#include "core/app/Log.h"

#include <QTimer>

#include <X11/Xlib.h>
#include <algorithm>
#include <unistd.h>

namespace {

constexpr long restackFromPager = 2;  // managers ignore other sources' stacking requests

}  // namespace

X11DesktopStacking::X11DesktopStacking(const QByteArray &displayName, QObject *parent)
    : QObject(parent)
    , x(displayName)
{
    if (!x.isOpen()) return;
    connect(&x, &X11Connection::rootPropertyChanged, this, [this](unsigned long atom) {
        if (atom == x.atom("_NET_CLIENT_LIST_STACKING") || atom == x.atom("_NET_CLIENT_LIST")) restackSoon();
    });
    x.watchRoot();
}

void X11DesktopStacking::add(QWindow *window)
{
    if (!window || windows.contains(window)) return;
    windows.append(window);
    // A window enters the stacking list only once mapped and managed; the list's change then
    // brings the first restack. Override-redirect windows never enter it.
    connect(window, &QWindow::visibleChanged, this, &X11DesktopStacking::restackSoon);
    restackSoon();
}

void X11DesktopStacking::remove(QWindow *window)
{
    if (!window) return;
    windows.removeAll(window);
    disconnect(window, nullptr, this, nullptr);
    loweredOnce.remove(XWindow(window->winId()));
}

void X11DesktopStacking::restackSoon()
{
    if (restackScheduled || !x.isOpen()) return;
    restackScheduled = true;
    QTimer::singleShot(0, this, &X11DesktopStacking::restack);
}

bool X11DesktopStacking::isOurs(XWindow client)
{
    for (const QPointer<QWindow> &window : std::as_const(windows))
        if (window && XWindow(window->winId()) == client) return true;
    return x.value(client, x.atom("_NET_WM_PID")) == static_cast<unsigned long>(getpid());
}

void X11DesktopStacking::restack()
{
    restackScheduled = false;
    windows.removeAll(nullptr);
    if (windows.isEmpty()) return;

    const std::vector<unsigned long> stack = x.values(x.root(), x.atom("_NET_CLIENT_LIST_STACKING"));
    const unsigned long desktopType = x.atom("_NET_WM_WINDOW_TYPE_DESKTOP");
    // The topmost desktop window of another program: the one whose icons show.
    XWindow icons = 0;
    qsizetype iconsAt = -1;
    for (qsizetype i = qsizetype(stack.size()) - 1; i >= 0 && !icons; --i) {
        const std::vector<unsigned long> types = x.values(stack[i], x.atom("_NET_WM_WINDOW_TYPE"));
        if (std::find(types.begin(), types.end(), desktopType) != types.end() && !isOurs(stack[i])) {
            icons = stack[i];
            iconsAt = i;
        }
    }
    const bool iconsSeeThrough = icons && x.depth(icons) == 32;

    if (icons && !iconsSeeThrough && !toldOpaque) {
        toldOpaque = true;
        // WM_CLASS holds the instance name, a NUL, then the class name.
        const QList<QByteArray> names = x.bytes(icons, x.atom("WM_CLASS")).split('\0');
        const QString program = QString::fromUtf8(names.value(1, names.value(0)));
        Log::write(QStringLiteral("Mesa: a janela de ícones do desktop (%1) é opaca; a sala fica "
                                  "acima dela e tapa os ícones — esconda-os na aba Desktop")
                       .arg(program.isEmpty() ? QStringLiteral("?") : program));
    }

    for (const QPointer<QWindow> &window : std::as_const(windows)) {
        if (!window->handle()) continue;
        const XWindow ours = XWindow(window->winId());
        if (window->flags().testFlag(Qt::BypassWindowManagerHint)) {
            lowerBypassing(ours);
            continue;
        }
        const auto found = std::find(stack.begin(), stack.end(), ours);
        if (found == stack.end()) continue;  // not managed yet
        const qsizetype oursAt = found - stack.begin();
        if (!icons) {
            if (!loweredOnce.contains(ours)) {
                loweredOnce.insert(ours);
                requestRestack(ours, 0, false);
            }
        } else if (iconsSeeThrough && iconsAt < oursAt) {
            requestRestack(ours, icons, false);
        } else if (!iconsSeeThrough && oursAt < iconsAt) {
            requestRestack(ours, icons, true);
        }
    }
    x.sync();
}

// _NET_RESTACK_WINDOW: the manager restacks its frame of `window` relative to `sibling`'s (or
// within the window's layer when there is no sibling).
void X11DesktopStacking::requestRestack(XWindow window, XWindow sibling, bool above)
{
    XEvent event{};
    event.xclient.type = ClientMessage;
    event.xclient.window = window;
    event.xclient.message_type = x.atom("_NET_RESTACK_WINDOW");
    event.xclient.format = 32;
    event.xclient.data.l[0] = restackFromPager;
    event.xclient.data.l[1] = long(sibling);
    event.xclient.data.l[2] = above ? Above : Below;
    XSendEvent(x.xdisplay(), x.root(), False, SubstructureRedirectMask | SubstructureNotifyMask, &event);
}

void X11DesktopStacking::lowerBypassing(XWindow window)
{
    Window rootReturn = 0, parent = 0;
    Window *children = nullptr;
    unsigned int count = 0;
    if (!XQueryTree(x.xdisplay(), x.root(), &rootReturn, &parent, &children, &count)) return;
    // Only shown windows count: managers keep unmapped helper windows anywhere in the stack.
    bool bottom = true;
    for (unsigned int i = 0; i < count && children[i] != window; ++i) {
        XWindowAttributes attributes;
        if (XGetWindowAttributes(x.xdisplay(), children[i], &attributes) && attributes.map_state == IsViewable) {
            bottom = false;
            break;
        }
    }
    if (children) XFree(children);
    if (!bottom) XLowerWindow(x.xdisplay(), window);
}
