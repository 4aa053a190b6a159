#include "platform/linux/X11WindowTransparency.h"

#include <X11/Xlib-xcb.h>
#include <X11/Xlib.h>
#include <cstdlib>
#include <string>
#include <vector>
#include <xcb/xcb.h>

namespace {

// 24 × 14 single pixels, asked all at once: one round trip of a few kilobytes.
constexpr int columns = 24, rows = 14;
// A pixel shows through below this alpha; a window whose pixels show through at more than
// this share of the grid is see-through (icons and widgets cover the rest).
constexpr unsigned alphaOpaque = 0xF0;
constexpr double seeThroughShare = 0.05;
// Verdicts of windows nobody asked about for this long are dropped.
constexpr qint64 forgetMs = 60000;

}  // namespace

X11WindowTransparency::X11WindowTransparency(X11Connection &connection)
    : x(connection)
{
    clock.start();
}

bool X11WindowTransparency::seeThrough(XWindow window)
{
    const qint64 now = clock.elapsed();
    auto found = verdicts.constFind(window);
    if (found != verdicts.constEnd() && now - found->at < freshMs) return found->seeThrough;
    verdicts.removeIf([now](const auto &item) { return now - item.value().at > forgetMs; });
    const bool verdict = judge(window);
    verdicts.insert(window, {verdict, now});
    return verdict;
}

bool X11WindowTransparency::composited()
{
    Display *d = x.xdisplay();
    const std::string selection = "_NET_WM_CM_S" + std::to_string(DefaultScreen(d));
    return XGetSelectionOwner(d, x.atom(selection.c_str())) != 0;
}

bool X11WindowTransparency::judge(XWindow window)
{
    if (!x.isOpen() || !window) return false;
    Display *d = x.xdisplay();
    XWindowAttributes attributes;
    const bool known = XGetWindowAttributes(d, window, &attributes) != 0;
    x.readQueuedSoon();
    if (!known || attributes.depth != 32 || attributes.map_state != IsViewable || !composited()) return false;
    const Visual *visual = attributes.visual;
    const uint32_t alphaMask = ~uint32_t(visual->red_mask | visual->green_mask | visual->blue_mask);
    if (!alphaMask || attributes.width <= 0 || attributes.height <= 0) return false;
    int shift = 0;
    while (!((alphaMask >> shift) & 1u)) ++shift;
    const uint32_t alphaMax = alphaMask >> shift;

    xcb_connection_t *c = XGetXCBConnection(d);
    const bool lsbFirst = xcb_get_setup(c)->image_byte_order == XCB_IMAGE_ORDER_LSB_FIRST;
    std::vector<xcb_get_image_cookie_t> asked;
    asked.reserve(columns * rows);
    for (int j = 0; j < rows; ++j)
        for (int i = 0; i < columns; ++i)
            asked.push_back(xcb_get_image(c, XCB_IMAGE_FORMAT_Z_PIXMAP, xcb_drawable_t(window),
                                          int16_t((2 * i + 1) * attributes.width / (2 * columns)),
                                          int16_t((2 * j + 1) * attributes.height / (2 * rows)), 1, 1, ~0u));
    int answered = 0, showing = 0;
    for (const xcb_get_image_cookie_t cookie : asked) {
        xcb_generic_error_t *error = nullptr;
        xcb_get_image_reply_t *reply = xcb_get_image_reply(c, cookie, &error);
        std::free(error);
        if (!reply) continue;
        if (xcb_get_image_data_length(reply) >= 4) {
            const uint8_t *b = xcb_get_image_data(reply);
            const uint32_t pixel =
                lsbFirst ? uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24
                         : uint32_t(b[3]) | uint32_t(b[2]) << 8 | uint32_t(b[1]) << 16 | uint32_t(b[0]) << 24;
            const unsigned alpha = ((pixel & alphaMask) >> shift) * 255u / alphaMax;
            ++answered;
            if (alpha < alphaOpaque) ++showing;
        }
        std::free(reply);
    }
    // Unreadable contents leave the window opaque: the room then shows above it.
    return answered > 0 && showing > seeThroughShare * answered;
}
