#pragma once

#include <QRect>
#include <QSize>

// How a surface's buffer pixels map onto the window system's logical pixels on one screen. A
// Wayland compositor names the scale in 120ths (fractional scale, drawn through a viewport at
// buffer scale 1) or as a whole number (wl_output's buffer scale); on X11 it is Qt's device pixel
// ratio, taken in 120ths too. A moving layer's rectangle is widened until its edges fall on whole
// logical pixels, so that the window system lays it exactly over the base instead of a pixel off
// with a seam of black beside it (or, at a whole Wayland scale, refusing a buffer that is no
// multiple of it).
class SurfaceScale {
public:
    static SurfaceScale whole(int factor);
    static SurfaceScale fractional(int per120);

    bool viewported() const { return throughViewport; }
    // The scale to set with wl_surface.set_buffer_scale.
    int bufferScale() const { return throughViewport ? 1 : per120 / 120; }
    double factor() const { return per120 / 120.0; }

    // A surface's buffer size for its logical size.
    QSize pixels(const QSize &logical) const;
    // `pixels` widened to whole logical pixels, kept inside a surface of `bounds` buffer pixels
    // (an edge on the surface's own edge stays there).
    QRect snap(const QRect &pixels, const QSize &bounds) const;
    // A snapped rectangle of buffer pixels in logical pixels.
    QRect toLogical(const QRect &pixels) const;

    bool operator==(const SurfaceScale &) const = default;

private:
    SurfaceScale(int per120, bool throughViewport);
    // Buffer pixels per step of whole logical pixels.
    int pixelStep() const;

    int per120 = 120;
    bool throughViewport = false;
};
