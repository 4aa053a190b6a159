// A scene's manifest.json: decoded, then everything the loader derives from it for each framing.
#include "FuzzSupport.h"

#include "core/lighting/LightMixer.h"
#include "core/scene/PlateManifest.h"
#include "core/scene/SceneFiles.h"

#include <QDateTime>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzSupport::init();
    try {
        const PlateManifest m =
            PlateManifest::decode(QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size)));
        m.presetOrder();
        // The light mix over a day, in every mode the dial offers.
        const LightMixer mixer(m);
        const QDateTime midnight(QDate(2026, 6, 1), QTime(0, 0));
        for (int minute = 0; minute < 24 * 60; minute += 97) {
            const Blend blend = mixer.clockBlend(midnight.addSecs(minute * 60));
            mixer.vignette(blend);
            mixer.grain(blend);
            for (const QString &mode : m.presetOrder()) mixer.modeBlend(mode, midnight.addSecs(minute * 60));
        }
        for (const auto &[name, framing] : m.framings) {
            SceneFiles::referenced(m, name);
            SceneFiles::sections(framing);
            PlateManifest::framingDisplayName(name);
        }
    } catch (const SceneError &) {
    }
    return 0;
}
