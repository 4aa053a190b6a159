// An Open-Meteo answer body: read, and turned into the rain the room shows.
#include "FuzzSupport.h"

#include "core/environment/WeatherService.h"

#include <cmath>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzSupport::init();
    QString error;
    const auto reading = WeatherService::readAnswer(
        QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size)), error);
    if (!reading) {
        if (error.isEmpty()) std::abort();
        return 0;
    }
    const WeatherService::Now now = reading->now();
    // The rain shader takes 0 or 0.25…1, nothing else.
    if (!std::isfinite(now.intensity) || (now.raining ? now.intensity < 0.25 || now.intensity > 1 : now.intensity != 0))
        std::abort();
    return 0;
}
