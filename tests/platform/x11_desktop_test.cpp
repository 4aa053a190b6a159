#include "platform/linux/X11WindowList.h"
#include "platform/linux/X11WindowTransparency.h"
#include "TestSupport.h"
#include "XServer.h"

#include <QDir>
#include <QImage>
#include <QProcess>
#include <QThread>
#include <gtest/gtest.h>
#include <algorithm>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <tuple>

#include "XClient.h"
#include <X11/extensions/dpms.h>
#include <X11/extensions/shape.h>

using namespace testsupport;
using namespace std::chrono_literals;

namespace {

constexpr auto patience = 30s;
const QColor roomColour(0x20, 0x90, 0x60);  // what x11_room_window paints

bool soon(const std::function<bool()> &done) { return waitUntil(done, patience); }

struct X11Desktop : ::testing::Test {
    XServer server;
    std::unique_ptr<XClient> x;
    QProcess *room = nullptr;  // the room window in its own process, on Qt's xcb platform
    Window ours = 0;           // its window, once showRoom() saw it
    ~X11Desktop() override { signalRoom(SIGCONT); }

    // The server with a window manager (none when empty); false with the reason when it cannot be had.
    bool start(QString &why, const QString &manager = "openbox", const QStringList &arguments = {"--sm-disable"},
               bool sessionBus = false)
    {
        if (!server.start(why) || (sessionBus && !server.startSessionBus(why)) ||
            (!manager.isEmpty() && !server.startManager(manager, arguments, why)))
            return false;
        x = std::make_unique<XClient>(server.display());
        why = "no Xlib connection";
        return x->d != nullptr;
    }

    // Starts the room's window; whether it showed.
    bool showRoom()
    {
        room = &server.launch(QStringLiteral(X11_ROOM_WINDOW), {});
        QByteArray out;
        qsizetype at = -1;
        soon([&] { return (at = (out = roomOutput()).indexOf("window ")) >= 0 && out.indexOf('\n', at) > 0; });
        ours = at < 0 ? 0 : Window(out.mid(at + 7, out.indexOf('\n', at) - at - 7).toULongLong());
        return ours != 0;
    }
    QByteArray roomOutput() const { return XServer::output(*room); }
    // Stopped (SIGSTOP) and continued, the room cannot answer while a test disturbs the stacking.
    void signalRoom(int signal)
    {
        if (room && room->state() == QProcess::Running) ::kill(pid_t(room->processId()), signal);
    }

    // Runs a compositing manager; whether it took the screen.
    bool compositing()
    {
        QProcess &compositor = server.launch("xcompmgr", {});
        soon([&] { return ownsCompositing() || compositor.state() == QProcess::NotRunning; });
        if (!ownsCompositing()) ADD_FAILURE() << XServer::output(compositor).constData();
        return ownsCompositing();
    }
    bool ownsCompositing() { return XGetSelectionOwner(x->d, x->atom("_NET_WM_CM_S0")) != 0; }
    bool viewable(Window w)
    {
        XWindowAttributes a;
        return XGetWindowAttributes(x->d, w, &a) && a.map_state == IsViewable;
    }
    // Something done to the stacking while the room cannot answer; `done` once it took effect.
    void whileStopped(const std::function<void()> &disturb, const std::function<bool()> &done)
    {
        signalRoom(SIGSTOP);
        disturb();
        EXPECT_TRUE(soon(done));
        signalRoom(SIGCONT);
    }

    void xdotool(const QStringList &args) { server.run("xdotool", args); }

    QStringList logLines(const QString &containing)
    {
        QStringList lines;
        for (const QFileInfo &file : QDir(server.stateHome()).entryInfoList({"*.log"}, QDir::Files))
            lines += QString::fromUtf8(readFile(file.filePath())).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        return lines.filter(containing);
    }
};

std::optional<ListedWindow> listedAt(X11WindowList &list, const QRect &frame)
{
    for (const ListedWindow &w : list.windows())
        if (w.frame == frame) return w;
    return std::nullopt;
}
bool listed(X11WindowList &list, const QRect &frame) { return listedAt(list, frame).has_value(); }

#define START_OR_SKIP(...)                                                                                             \
    do {                                                                                                               \
        QString why;                                                                                                   \
        if (!start(why __VA_OPT__(, ) __VA_ARGS__)) {                                                                  \
            if (why.contains("installed")) GTEST_SKIP() << qPrintable(why);                                            \
            FAIL() << qPrintable(why);                                                                                 \
        }                                                                                                              \
    } while (0)

}  // namespace

TEST_F(X11Desktop, UnderOpenboxTheRoomIsAStickyClickThroughDesktopWindowBelowAllButOpaqueIconWindows)
{
    START_OR_SKIP();
    const Window other = x->makeWindow(QRect(60, 60, 320, 200));
    ASSERT_TRUE(soon([&] { return x->stackIndex(other) >= 0; }));

    ASSERT_TRUE(showRoom()) << roomOutput().constData();
    ASSERT_TRUE(soon([&] { return x->stackIndex(ours) == 0; })) << "stack position " << x->stackIndex(ours);

    EXPECT_EQ(x->values(ours, "_NET_WM_WINDOW_TYPE"),
              std::vector<unsigned long>{x->atom("_NET_WM_WINDOW_TYPE_DESKTOP")});
    // The states the manager supports (openbox has no sticky: the desktop number says "every desktop").
    for (const char *state :
         {"_NET_WM_STATE_STICKY", "_NET_WM_STATE_SKIP_TASKBAR", "_NET_WM_STATE_SKIP_PAGER", "_NET_WM_STATE_BELOW"})
        if (x->has(x->root(), "_NET_SUPPORTED", state)) {
            EXPECT_TRUE(x->has(ours, "_NET_WM_STATE", state)) << state;
        }

    const auto rectangles = [&](int kind) {
        int count = -1, ordering = 0;
        if (XRectangle *all = XShapeGetRectangles(x->d, ours, kind, &count, &ordering)) XFree(all);
        return count;
    };
    EXPECT_EQ(rectangles(ShapeInput), 0) << "clicks go through to the desktop";

    QImage shot;
    ASSERT_TRUE(soon([&] {
        shot = server.screenshot();
        return !shot.isNull() && shot.pixelColor(900, 600) == roomColour;
    })) << "the room does not show on the desktop";
    EXPECT_NE(shot.pixelColor(200, 150), roomColour) << "the ordinary window is not above the room";

    xdotool({"set_desktop", "1"});
    ASSERT_TRUE(soon([&] { return x->values(x->root(), "_NET_CURRENT_DESKTOP") == std::vector<unsigned long>{1}; }));
    // The manager announces the new desktop before it unmaps the old one's windows.
    EXPECT_TRUE(soon([&] { return !viewable(other); })) << "the other desktop's window is still shown";
    EXPECT_TRUE(viewable(ours));
}

// Started before the icons, as at login: on its own desktop, where a desktop switch cannot race the
// icon window's mapping.
TEST_F(X11Desktop, UnderOpenboxRisesAboveAnOpaqueIconWindowMappedLater)
{
    START_OR_SKIP();
    ASSERT_TRUE(showRoom()) << roomOutput().constData();
    ASSERT_TRUE(soon([&] { return x->stackIndex(ours) >= 0; }));

    // Opaque wallpaper and icons in one 24-bit window, as pcmanfm's under openbox (LXDE).
    const Window icons = x->makeWindow(QRect(0, 0, 1280, 800), false, "_NET_WM_WINDOW_TYPE_DESKTOP");
    XClassHint names{const_cast<char *>("pcmanfm"), const_cast<char *>("Pcmanfm")};
    XSetClassHint(x->d, icons, &names);
    XSync(x->d, False);
    const auto above = [&] { return x->stackIndex(icons) >= 0 && x->stackIndex(ours) > x->stackIndex(icons); };
    ASSERT_TRUE(soon(above)) << "ours at " << x->stackIndex(ours) << ", the icons at " << x->stackIndex(icons);
    // Raised above ours while ours cannot answer: back above it once it can.
    whileStopped([&] { x->restack(icons, Above); }, [&] { return !above(); });
    EXPECT_TRUE(soon(above));
}

TEST_F(X11Desktop, WindowListUnderOpenboxListsOtherProgramsWindowsShownOnThisDesktop)
{
    START_OR_SKIP();
    X11WindowList list(server.display());
    ASSERT_TRUE(list.connected());
    int changes = 0;
    QObject::connect(&list, &WindowList::changed, [&] { ++changes; });

    const Window plain = x->makeWindow(QRect(100, 120, 300, 200));
    ASSERT_TRUE(soon([&] { return !x->values(plain, "_NET_FRAME_EXTENTS").empty(); }));
    const QRect plainFrame = x->outerFrame(plain);
    ASSERT_GT(plainFrame.height(), 200) << "openbox puts a title bar on it";
    ASSERT_TRUE(soon([&] { return listed(list, plainFrame); })) << "not among " << list.windows().size();

    changes = 0;
    const Window second = x->makeWindow(QRect(500, 300, 200, 150));
    ASSERT_TRUE(soon([&] { return changes > 0; })) << "no change on map";
    ASSERT_TRUE(soon([&] { return x->stackIndex(second) >= 0; }));
    const QRect secondFrame = x->outerFrame(second);
    ASSERT_TRUE(soon([&] { return listed(list, secondFrame); }));

    x->setValues(plain, "_NET_WM_WINDOW_OPACITY", XA_CARDINAL, {0x7FFFFFFFul});
    EXPECT_NEAR(listedAt(list, plainFrame)->opacity, 0.5, 0.001);

    // Windows of this process (by _NET_WM_PID), docks and desktop windows are left out.
    const Window mine = x->makeWindow(QRect(700, 50, 120, 90));
    x->setValues(mine, "_NET_WM_PID", XA_CARDINAL, {static_cast<unsigned long>(getpid())});
    const Window dock = x->makeWindow(QRect(0, 760, 1280, 40), false, "_NET_WM_WINDOW_TYPE_DOCK");
    const Window desktop = x->makeWindow(QRect(0, 0, 1280, 800), false, "_NET_WM_WINDOW_TYPE_DESKTOP");
    ASSERT_TRUE(soon([&] {
        return std::min({x->stackIndex(mine), x->stackIndex(dock), x->stackIndex(desktop)}) >= 0;
    }));
    EXPECT_EQ(list.windows().size(), 2u) << "only the plain and the second window";
    // A move is announced, so a covered room need not look for it.
    ASSERT_TRUE(list.announcesMoves());
    testsupport::spin(300ms);  // the notices of the maps above
    changes = 0;
    x->move(mine, QRect(710, 60, 120, 90));
    EXPECT_TRUE(soon([&] { return changes > 0; })) << "no change on a move";

    xdotool({"windowminimize", QString::number(plain)});
    ASSERT_TRUE(soon([&] { return x->has(plain, "_NET_WM_STATE", "_NET_WM_STATE_HIDDEN"); }));
    EXPECT_FALSE(listed(list, plainFrame));

    // On another desktop: gone; shown again once that desktop is current, with a change.
    xdotool({"set_desktop_for_window", QString::number(second), "1"});
    ASSERT_TRUE(soon([&] { return x->values(second, "_NET_WM_DESKTOP") == std::vector<unsigned long>{1}; }));
    EXPECT_FALSE(listed(list, secondFrame));
    changes = 0;
    xdotool({"set_desktop", "1"});
    ASSERT_TRUE(soon([&] { return changes > 0; })) << "no change on desktop switch";
    ASSERT_TRUE(soon([&] { return listed(list, secondFrame); }));
}

// Without a window manager: the window server's own blanking, and the alpha a compositing manager shows.
TEST_F(X11Desktop, BlankedScreensAreNoticedAndThirtyTwoBitWindowsAreJudgedByTheAlphaTheyShow)
{
    START_OR_SKIP("");
    {
        // A round trip pulls the server's events into Xlib's queue, where the socket no longer announces
        // them: they are read from the event loop all the same, every time.
        X11Connection connection(server.display());
        connection.watchRoot();
        int notices = 0;
        QObject::connect(&connection, &X11Connection::rootPropertyChanged, [&] { ++notices; });
        for (unsigned long round = 1; round <= 2; ++round) {
            x->setValues(x->root(), "TURNELO_TEST_ROUND", XA_CARDINAL, {round});
            connection.sync();
            ASSERT_TRUE(soon([&] { return notices == int(round); })) << "round " << round << ": " << notices;
        }
    }
    {
        // Xvfb has no DPMS: its power levels are read by hand. Standby and suspend are dark too; with
        // DPMS disabled or unanswered the monitors are taken to be on.
        const std::tuple<bool, bool, int, bool> levels[] = {
            {true, true, DPMSModeOn, false}, {true, true, DPMSModeStandby, true}, {true, true, DPMSModeSuspend, true},
            {true, true, DPMSModeOff, true}, {true, false, DPMSModeOff, false},   {false, true, DPMSModeOff, false}};
        for (const auto &[answered, enabled, level, dark] : levels)
            EXPECT_EQ(X11WindowList::powerLevelIsDark(answered, enabled, level), dark) << level;
        // As without a screen-saver service (openbox, i3); powering down blanks the same way first. The
        // server's notice is what wakes the scheduler: the list is only asked after it.
        X11WindowList list(server.display());
        ASSERT_TRUE(list.connected());
        int changes = 0;
        QObject::connect(&list, &WindowList::changed, [&] { ++changes; });
        EXPECT_FALSE(list.screensOff());

        server.run("xset", {"s", "activate"});
        ASSERT_TRUE(soon([&] { return changes > 0; })) << "no notice from the server";
        EXPECT_TRUE(list.screensOff());

        changes = 0;
        server.run("xset", {"s", "reset"});
        ASSERT_TRUE(soon([&] { return changes > 0; })) << "no notice from the server";
        EXPECT_FALSE(list.screensOff());

        // A manager that keeps other desktops' windows mapped (as pagers of viewports do): the
        // window's desktop alone leaves it out.
        const Window away = x->makeWindow(QRect(0, 0, 200, 200));
        x->setValues(x->root(), "_NET_CURRENT_DESKTOP", XA_CARDINAL, {0});
        x->setValues(x->root(), "_NET_CLIENT_LIST_STACKING", XA_WINDOW, {away});
        x->setValues(away, "_NET_WM_DESKTOP", XA_CARDINAL, {1});
        EXPECT_TRUE(list.windows().empty());
        x->setValues(away, "_NET_WM_DESKTOP", XA_CARDINAL, {0});
        EXPECT_EQ(list.windows().size(), 1u);
        x->setValues(away, "_NET_WM_DESKTOP", XA_CARDINAL, {0xFFFFFFFFul});
        EXPECT_EQ(list.windows().size(), 1u) << "a window on every desktop is left out";
        x->setValues(x->root(), "_NET_CLIENT_LIST_STACKING", XA_WINDOW, {});
        x->close(away);
    }

    if (!XServer::installed("xcompmgr")) GTEST_SKIP() << "xcompmgr is not installed (blanking passed)";
    // Transparent between a few icons (GNOME's desktop icons); a wallpaper painted into a 32-bit
    // window (Plasma's desktop) with one small see-through corner; one see-through only along its
    // bottom edge, which a sampling that misses the last rows would call opaque; a plain 24-bit window.
    const Window clear = x->makeWindow(QRect(0, 0, 640, 400), true);
    const Window painted = x->makeWindow(QRect(640, 0, 640, 400), true);
    const Window edged = x->makeWindow(QRect(640, 400, 640, 400), true);
    const Window plain = x->makeWindow(QRect(0, 400, 640, 400));
    ASSERT_TRUE(clear && painted && edged && plain) << "no 32-bit visual";
    const unsigned long blue = 0xFF3050A0ul;
    x->fill(clear, blue, {{20, 20, 64, 64}, {20, 110, 64, 64}, {20, 200, 64, 64}, {20, 290, 64, 64}});
    x->fill(painted, blue, {{0, 0, 640, 400}});
    x->fill(painted, 0, {{0, 0, 60, 40}});
    x->fill(edged, blue, {{0, 0, 640, 372}});

    // Without a compositing manager no alpha is blended: every window hides what lies below.
    X11Connection connection(server.display());
    X11WindowTransparency before(connection);
    for (const Window w : {clear, painted, edged, plain}) EXPECT_FALSE(before.seeThrough(w)) << w;

    ASSERT_TRUE(compositing());
    X11WindowTransparency judge(connection);
    EXPECT_TRUE(judge.seeThrough(clear));
    EXPECT_FALSE(judge.seeThrough(painted)) << "opaque nearly everywhere";
    EXPECT_TRUE(judge.seeThrough(edged)) << "see-through along its bottom 7%";
    EXPECT_FALSE(judge.seeThrough(plain));
    EXPECT_FALSE(judge.seeThrough(0x7FFFFFul)) << "a window that does not exist";
}

TEST_F(X11Desktop, StaysBelowASeeThroughIconWindowAndRisesOnceItIsPaintedOver)
{
    if (!XServer::installed("xcompmgr")) GTEST_SKIP() << "xcompmgr is not installed";
    START_OR_SKIP();
    // See-through between its icons as GNOME's are, under a compositing manager as GNOME always has.
    ASSERT_TRUE(compositing());
    const Window icons = x->makeWindow(QRect(0, 0, 1280, 800), true, "_NET_WM_WINDOW_TYPE_DESKTOP");
    ASSERT_NE(icons, 0ul) << "no 32-bit visual";
    ASSERT_TRUE(soon([&] { return x->stackIndex(icons) >= 0; }));

    ASSERT_TRUE(showRoom()) << roomOutput().constData();
    const auto below = [&] { return x->stackIndex(ours) >= 0 && x->stackIndex(ours) < x->stackIndex(icons); };
    // Mapped later, openbox puts it on top of the desktop layer; it must go below the icons.
    ASSERT_TRUE(soon(below));
    // The icons lower themselves (as Nemo does on every map) while ours cannot answer: below again once it can.
    whileStopped([&] { x->restack(icons, Below); }, [&] { return !below(); });
    ASSERT_TRUE(soon(below));

    // A desktop that paints its wallpaper in later (Plasma's does) tells nobody: the room looks again
    // and rises above it.
    x->fill(icons, 0xFF3050A0ul, {{0, 0, 1280, 800}});
    EXPECT_TRUE(soon([&] { return x->stackIndex(ours) > x->stackIndex(icons); })) << "still under a painted desktop";
}

TEST_F(X11Desktop, SitsAboveXfdesktopsOpaqueIconWindowAndSaysSo)
{
    if (!XServer::installed("xfdesktop")) GTEST_SKIP() << "xfdesktop is not installed";
    START_OR_SKIP("xfwm4", {"--compositor=off"}, true);

    // The room starts first, as a login's autostart race may have it (xfwm4 ignores requests to
    // restack desktop windows: the restacking itself is exercised under openbox).
    ASSERT_TRUE(showRoom()) << roomOutput().constData();
    // xfwm4 publishes the stacking list only from its second client on.
    ASSERT_TRUE(soon([&] { return std::ranges::count(x->values(x->root(), "_NET_CLIENT_LIST"), ours) > 0; }));

    QProcess &xfdesktop = server.launch("xfdesktop", {});
    Window icons = 0;
    ASSERT_TRUE(soon([&] {
                    for (const unsigned long client : x->values(x->root(), "_NET_CLIENT_LIST"))
                        if (client != ours && x->has(client, "_NET_WM_WINDOW_TYPE", "_NET_WM_WINDOW_TYPE_DESKTOP"))
                            icons = client;
                    return icons != 0 || xfdesktop.state() == QProcess::NotRunning;
                }) &&
                icons)
        << XServer::output(xfdesktop).constData();
    XWindowAttributes attributes;
    ASSERT_TRUE(XGetWindowAttributes(x->d, icons, &attributes));
    ASSERT_EQ(attributes.depth, 24) << "xfdesktop's window is expected opaque here";

    ASSERT_TRUE(soon([&] { return x->stackIndex(ours) > x->stackIndex(icons); }))
        << "ours at " << x->stackIndex(ours) << ", xfdesktop at " << x->stackIndex(icons);
    QStringList told;
    ASSERT_TRUE(soon([&] { return !(told = logLines("Mesa:")).isEmpty(); }));
    EXPECT_TRUE(
        told.first().contains("Mesa: a janela de ícones do desktop (Xfdesktop) é opaca; a sala fica acima dela"))
        << qPrintable(told.first());
    EXPECT_TRUE(soon([&] { return server.screenshot().pixelColor(900, 600) == roomColour; }))
        << "the room is hidden under xfdesktop";
}

TEST_F(X11Desktop, UnderI3BypassesTheManagerAndLiesUnderEveryWindow)
{
    QTemporaryDir config;
    writeFile(config.filePath("i3.conf"), "font pango:monospace 8\n");
    START_OR_SKIP("i3", {"-c", config.filePath("i3.conf")});
    const Window other = x->makeWindow(QRect(60, 60, 320, 200));
    // Listed, and its frame settled: i3 tiles and decorates a window in steps after it lists it.
    ASSERT_TRUE(soon([&] { return !x->values(x->root(), "_NET_CLIENT_LIST").empty(); }));
    QRect otherFrame;
    ASSERT_TRUE(soon([&] {
        const QRect before = x->outerFrame(other);
        QThread::msleep(300);
        otherFrame = x->outerFrame(other);
        return otherFrame == before && otherFrame.width() > 320;
    }));

    ASSERT_TRUE(showRoom()) << roomOutput().constData();

    // Among the root's children (bottom to top), no shown window lies under ours.
    auto shownBelowOurs = [&] {
        Window rootReturn = 0, parent = 0, *children = nullptr;
        unsigned int count = 0;
        int below = -1;
        if (XQueryTree(x->d, x->root(), &rootReturn, &parent, &children, &count)) {
            below = 0;
            for (unsigned int i = 0; i < count && children[i] != ours; ++i) below += viewable(children[i]);
        }
        if (children) XFree(children);
        return below;
    };
    ASSERT_TRUE(soon([&] { return viewable(ours) && shownBelowOurs() == 0; }))
        << "shown windows below ours: " << shownBelowOurs();
    XWindowAttributes attributes{};
    ASSERT_TRUE(XGetWindowAttributes(x->d, ours, &attributes));
    EXPECT_TRUE(attributes.override_redirect);
    EXPECT_EQ(QRect(attributes.x, attributes.y, attributes.width, attributes.height), QRect(0, 0, 1280, 800))
        << "tiled instead of covering the screen";
    EXPECT_EQ(x->outerFrame(other), otherFrame);

    // Raised while it cannot answer: lowered again at the next change of the client list.
    whileStopped([&] { XRaiseWindow(x->d, ours), XSync(x->d, False); }, [&] { return shownBelowOurs() > 0; });
    x->makeWindow(QRect(400, 300, 200, 100));
    ASSERT_TRUE(soon([&] { return shownBelowOurs() == 0; }));
}
