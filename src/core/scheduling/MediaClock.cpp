#include "core/scheduling/MediaClock.h"

#include <chrono>

double MediaClock::steady()
{
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}
