#include "platform/linux/X11DesktopStacking.h"

#include "core/app/Log.h"

#include <QTimer>

#include <X11/Xlib.h>
#include <algorithm>
#include <optional>
#include <unistd.h>

namespace {

constexpr long restackFromPager = 2;  // managers ignore other sources' stacking requests
// Raising ours above the same icon window more often than this within the span means another
// program puts it back on top each time: the room stops answering instead of looping with it.
constexpr int raisesAllowed = 3;
constexpr qint64 raisesSpanMs = 10000;

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
    recheck.setInterval(X11WindowTransparency::freshMs);
    connect(&recheck, &QTimer::timeout, this, &X11DesktopStacking::restack);
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
    const bool iconsSeeThrough = icons && transparency.seeThrough(icons);
    if (icons && x.depth(icons) == 32) {
        if (!recheck.isActive()) recheck.start();
    } else {
        recheck.stop();
    }
    // WM_CLASS holds the instance name, a NUL, then the class name.
    const QList<QByteArray> names = icons ? x.bytes(icons, x.atom("WM_CLASS")).split('\0') : QList<QByteArray>();
    QString program = QString::fromUtf8(names.value(1, names.value(0)));
    if (program.isEmpty()) program = QStringLiteral("?");

    if (icons && !iconsSeeThrough && !toldOpaque) {
        toldOpaque = true;
        Log::write(QStringLiteral("Mesa: a janela de ícones do desktop (%1) é opaca; a sala fica "
                                  "acima dela e tapa os ícones — esconda-os na aba Desktop")
                       .arg(program));
    }
    raises.removeIf([icons](const auto &item) { return item.key() != icons; });
    std::optional<bool> raiseAllowed;  // asked once per pass, however many screens need it

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
            if (!raiseAllowed) raiseAllowed = mayRaiseAbove(icons, program);
            if (*raiseAllowed) requestRestack(ours, icons, true);
        }
    }
    x.sync();
}

bool X11DesktopStacking::mayRaiseAbove(XWindow icons, const QString &program)
{
    if (yieldedTo.contains(icons)) return false;
    Raises &r = raises[icons];
    if (!r.since.isValid() || r.since.elapsed() > raisesSpanMs) {
        r.count = 0;
        r.since.start();
    }
    if (++r.count <= raisesAllowed) return true;
    yieldedTo.insert(icons);
    Log::write(QStringLiteral("Mesa: a janela de desktop (%1) volta sempre para cima da sala; a sala deixa "
                              "de disputar o lugar e pausa enquanto estiver coberta")
                   .arg(program));
    return false;
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
