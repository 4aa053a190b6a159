// A mask or shadow file (PNG, or whatever the image reader recognises): decoded to 8-bit grey and
// cropped as a mask and as a shadow.
#include "FuzzSupport.h"

#include "core/scene/ImageDecoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzSupport::init();
    const QString path = FuzzSupport::writeScratch(QStringLiteral("mask.png"), data, size);
    try {
        const GrayImage image = ImageDecoder::decodeGray(path);
        ImageDecoder::cropMask(image);
        ImageDecoder::cropShadow(image, {4.0f, 4.0f});
    } catch (const SceneError &) {
    }
    return 0;
}
