#pragma once

#include <QByteArray>
#include <QObject>
#include <QRect>
#include <QString>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <vector>

struct wl_compositor;
struct wl_interface;
struct wl_display;
struct wl_output;
struct wl_registry;
struct wl_subcompositor;
struct wp_fractional_scale_manager_v1;
struct wp_viewporter;
struct zwlr_layer_shell_v1;
struct zxdg_output_manager_v1;
struct zxdg_output_v1;
class QSocketNotifier;

// The room's own connection to the Wayland compositor, beside Qt's (which keeps the popover and
// the settings windows): the globals the room needs and the outputs as they come and go. Events
// are read when the socket has some and dispatched before the event loop sleeps, which also
// flushes the requests made meanwhile. Main thread only.
class WaylandConnection : public QObject {
    Q_OBJECT
public:
    struct Output {
        uint32_t id = 0;  // the registry's name of the global
        wl_output *output = nullptr;
        zxdg_output_v1 *xdgOutput = nullptr;
        QString name;        // "HEADLESS-1", "DP-2"; from xdg-output, or wl_output 4
        QRect logical;       // position and size in the compositor's layout
        QSize mode;          // the current mode in pixels
        int scale = 1;       // wl_output's integer scale
        bool ready = false;  // every property has arrived once
    };

    // An empty name connects to $WAYLAND_DISPLAY. Without a compositor isOpen() is false.
    explicit WaylandConnection(const QByteArray &displayName = {}, QObject *parent = nullptr);
    ~WaylandConnection() override;

    bool isOpen() const { return display != nullptr; }
    bool hasLayerShell() const { return layerShellGlobal != nullptr; }

    wl_display *wlDisplay() const { return display; }
    wl_compositor *compositor() const { return compositorGlobal; }
    wl_subcompositor *subcompositor() const { return subcompositorGlobal; }
    zwlr_layer_shell_v1 *layerShell() const { return layerShellGlobal; }
    // Globals whose first events describe what already exists (the windows, the desktops): they
    // are bound by their user, which listens before any of those events is read. Null when the
    // compositor does not offer it; the caller destroys what it got.
    bool offers(const wl_interface &interface) const;
    void *bindWhenListening(const wl_interface &interface, uint32_t version);
    // Both or neither: a fractional scale is drawn through a viewport.
    wp_fractional_scale_manager_v1 *fractionalScale() const { return viewporterGlobal ? fractionalGlobal : nullptr; }
    wp_viewporter *viewporter() const { return fractionalGlobal ? viewporterGlobal : nullptr; }

    // The outputs whose properties have all arrived, in the order the compositor announced them:
    // the first is the main one.
    std::vector<const Output *> outputs() const;
    const Output *output(uint32_t id) const;
    const Output *outputOf(const wl_output *output) const;

    // Sends the requests made so far.
    void flush();

    // Whether the compositor at $WAYLAND_DISPLAY (or `displayName`) offers layer surfaces: one
    // short connection of its own. None when no compositor answers there.
    static std::optional<bool> offersLayerShell(const QByteArray &displayName = {});

signals:
    // An output was added, removed, or changed its name, place, size or scale.
    void outputsChanged();
    // The compositor went away: nothing more arrives.
    void lost();

private:
    static void global(void *data, wl_registry *registry, uint32_t name, const char *interface, uint32_t version);
    static void globalRemove(void *data, wl_registry *registry, uint32_t name);
    // An output with the connection it reports to, the user data of its listeners.
    struct Entry {
        WaylandConnection *connection = nullptr;
        Output output;
    };
    void addOutput(uint32_t id, uint32_t version);
    void watchXdgOutput(Entry &entry);
    void outputDone(Entry &entry);
    void readEvents();
    void dispatchPending();

    wl_display *display = nullptr;
    wl_registry *registry = nullptr;
    wl_compositor *compositorGlobal = nullptr;
    wl_subcompositor *subcompositorGlobal = nullptr;
    zwlr_layer_shell_v1 *layerShellGlobal = nullptr;
    zxdg_output_manager_v1 *xdgOutputManager = nullptr;
    wp_fractional_scale_manager_v1 *fractionalGlobal = nullptr;
    wp_viewporter *viewporterGlobal = nullptr;
    // The registry's name and version of each global left for its user to bind.
    struct Offer {
        uint32_t name = 0, version = 0;
    };
    std::map<QByteArray, Offer> lateGlobals;
    std::vector<std::unique_ptr<Entry>> outputList;
    std::unique_ptr<QSocketNotifier> notifier;
    QMetaObject::Connection aboutToBlock;
    bool lostReported = false;
};
