#include "render/SceneTextures.h"

const GpuTexture *SceneTextures::slot(int s) const
{
    auto get = [](const TextureRef &t) { return t.get(); };
    if (s >= 0 && s <= 3) return get(mixes[s]);
    if (s == 4) return get(coverMask);
    if (s == 5) return get(labelMask);
    if (s == 6) return get(artNew);
    if (s == 7) return get(artOld);
    if (s >= 8 && s <= 11) return get(arm[s - 8]);
    if (s >= 12 && s <= 15) return get(shadows[s - 12]);
    if (s >= 16 && s <= 17) return get(fronts[s - 16]);
    if (s >= 18 && s <= 21) return get(reflections[s - 18]);
    if (s >= 22 && s <= 23) return get(bounce[s - 22]);
    if (s == 24) return get(stackUV);
    if (s == 25) return get(stackArt);
    if (s == 26) return get(strobe);
    if (s == 27) return get(glass);
    if (s >= 28 && s <= 29) return get(record[s - 28]);
    if (s == 30) return get(recordMask);
    if (s == 31) return get(labelNew);
    if (s == 32) return get(labelOld);
    if (s == 33) return get(dustCover);
    if (s == 34) return get(still);
    if (s == 35) return get(steam);
    return nullptr;
}
