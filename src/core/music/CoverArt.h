#pragma once

#include <QImage>
#include <functional>
#include <memory>

// The album art the room shows: the cover on the sleeve and the record's label, each as a GPU
// texture made by the renderer, with a 0.7 s smoothstep cross-fade from the previous cover and
// the mean linear colour the room's bounce light picks up.
//
// Textures are opaque handles from a TextureMaker; dropping the last reference releases the
// texture, so releasePrevious() is what frees the old cover's memory. Image preparation and all
// state live here so the behaviour is the same with or without a device.
//
// One per scene renderer. Main thread only. Times are media-clock seconds.
class CoverArt {
public:
    using Texture = std::shared_ptr<void>;
    // Makes an sRGB texture with mipmaps from an RGBA8888 image; null when it cannot. May be
    // empty, then every texture is null (no device).
    using TextureMaker = std::function<Texture(const QImage &rgba)>;

    struct Color {  // linear sRGB
        double r = 0, g = 0, b = 0;
        bool operator==(const Color &) const = default;
    };

    struct Side {
        Texture cover;
        Texture label;
        Color mean;
        double labelLuminance = 0;
        bool placeholder = false;
    };

    static constexpr double fadeDuration = 0.7;
    static constexpr int maxCoverSide = 1024;
    static constexpr int labelSide = 256;

    // `drawsPlaceholder`: an absent cover shows the drawn placeholder; otherwise no cover texture
    // at all, and the plate's own sleeve shows through.
    explicit CoverArt(TextureMaker maker, bool drawsPlaceholder = true);

    // Starts a cross-fade to `image` (null: the placeholder) with its `label` (null: made from the
    // cover). Setting the same images again changes nothing.
    void set(const QImage &image, const QImage &label, double now);

    // Cross-fade progress at `time`: 0 = all previous, 1 = all current, smoothstep-eased.
    double fade(double time) const;
    Color mean(double time) const;
    double labelLuminance(double time) const;
    // Drops the previous textures once the fade is over; returns whether it dropped any.
    bool releasePrevious(double time);

    const Side &current() const { return now_; }
    const Side &previous() const { return before; }
    double fadeStart() const { return start; }
    bool usesDefaultCover() const { return now_.placeholder; }

    // Image preparation, shared with whatever shows covers without a device.
    static QImage placeholderCover();
    static QImage prepareCover(const QImage &image);  // RGBA8888, sRGB, longest side ≤ maxCoverSide
    static QImage prepareLabel(const QImage &image);  // centre square, labelSide², RGBA8888
    static Color meanLinear(const QImage &image);
    static double luminance(const Color &c);  // Rec. 709 weights

private:
    Side makeSide(const QImage &image, const QImage &label) const;

    TextureMaker maker;
    bool drawsPlaceholder;
    Side now_;
    Side before;
    double start = -1e9;
    qint64 lastImageKey = 0;
    qint64 lastLabelKey = 0;
};
