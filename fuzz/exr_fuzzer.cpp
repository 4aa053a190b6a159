// A plate file as OpenEXR: decoded, then cut down by every crop the loader uses.
#include "FuzzSupport.h"

#include "core/scene/ImageDecoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzSupport::init();
    const QString path = FuzzSupport::writeScratch(QStringLiteral("plate.exr"), data, size);
    try {
        const HalfImage image = ImageDecoder::decodeEXR(path);
        const ImageDecoder::Origin origin{12.5f, -3.0f};
        ImageDecoder::cropSprite(image, origin);
        ImageDecoder::cropAdditive(image);
        for (int channel = 0; channel < 4; ++channel) ImageDecoder::cropByChannel(image, channel, origin);
    } catch (const SceneError &) {
    }
    return 0;
}
