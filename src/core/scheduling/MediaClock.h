#pragma once

#include <functional>

// Seconds on the one monotonic clock that player positions, light cross-fades, the record's
// spin, the arm and the frame ticks share. Handed to each of them, so that a test moves time
// instead of waiting for it. Copies read the same source.
class MediaClock {
public:
    using Source = std::function<double()>;

    // The process's steady clock; never goes back, stands still while the machine sleeps.
    static double steady();

    MediaClock()
        : source(&steady)
    {
    }
    explicit MediaClock(Source s)
        : source(std::move(s))
    {
    }

    double now() const { return source(); }

private:
    Source source;
};
