// The settings file as another process, an old version or a crash may have left it: read with
// every typed accessor, then written once and read back.
#include "FuzzSupport.h"

#include "core/app/Settings.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzSupport::init();
    const QString path = FuzzSupport::writeScratch(QStringLiteral("turnelo-dev.json"), data, size);
    {
        Settings s(path);
        s.showMenuBarIcon();
        s.showTurntable();
        s.allScreens();
        s.framing();
        s.lightPreset();
        s.steam();
        s.fxRecord();
        s.fxBounce();
        s.fxWeather();
        s.fxStack();
        s.fxPanel();
        s.musicSetupDone();
        s.onboardingDone();
        s.ecoMode();
        s.ecoTrigger();
        s.weatherCity();
        s.weatherLatitude();
        s.weatherLongitude();
        s.weatherServiceURL();
        s.desktopSnapshot();
        s.sceneCatalogETag();
        s.contentServiceURL();
        s.labelMotionBlur();
        s.showcase();
        s.debugIgnoreOcclusion();
        s.debugSimulateNoMusic();
        s.debugCoverArt();
        s.debugWeather();
        if (s.stackLimit() < 1) std::abort();
        const int fps = s.fps();
        if (fps < 15 || fps > 60) std::abort();
        s.perfLogInterval();
        s.setStackLimit(7);
    }
    // What was written must read back, whatever the file held before.
    Settings again(path);
    if (again.stackLimit() != 7) std::abort();
    return 0;
}
