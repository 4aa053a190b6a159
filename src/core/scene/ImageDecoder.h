#pragma once

#include "core/scene/PlateImages.h"
#include "core/scene/SceneError.h"

#include <QString>
#include <optional>
#include <stdexcept>

// Plate files to rasters, without colour management, and crops to the content rectangle so the
// GPU stores only what holds content. Pure functions; safe on any thread.
namespace ImageDecoder {

struct Origin {
    float x = 0;
    float y = 0;
};

// OpenEXR half RGB or RGBA (RGB gains A = 1), any compression the library reads. The raster
// has the display window's size; pixels outside the data window are zero. Throws SceneError (badPlate):
// "não achei <path>", "ImageIO não lê <name> (arquivo danificado ou formato desconhecido)",
// "<name>: precisa ser EXR half RGB(A)".
HalfImage decodeEXR(const QString &path);
// An 8-bit grey mask; colour or 16-bit images are converted to 8-bit grey.
GrayImage decodeGray(const QString &path);

std::optional<CroppedHalf> cropSprite(const HalfImage &image, Origin origin = {});
std::optional<CroppedHalf> cropByChannel(const HalfImage &image, int channel, Origin origin = {});
std::optional<CroppedHalf> cropAdditive(const HalfImage &image, Origin origin = {});
std::optional<CroppedGray> cropShadow(const GrayImage &image, Origin origin = {});
std::optional<CroppedGray> cropMask(const GrayImage &image);

}  // namespace ImageDecoder
