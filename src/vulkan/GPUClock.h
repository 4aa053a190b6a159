#pragma once

#include <algorithm>
#include <array>
#include <mutex>
#include <utility>

// GPU time of completed command buffers since the last read. Writers are whatever thread sees
// a frame complete; the reader takes and resets both figures in one locked step.
class GPUClock {
public:
    void add(double seconds)
    {
        std::lock_guard<std::mutex> lock(mutex);
        total += seconds;
        ++count;
        lately[next++ % lately.size()] = seconds;
    }
    // The seconds of a command buffer lately: the median of the last few, so that the rare long
    // one (a shader compiled at its first draw) does not count. No figure yet: −1. Not reset by take().
    double recent()
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (next == 0) return -1;
        std::array<double, 15> sorted = lately;
        const size_t n = std::min(next, sorted.size());
        std::nth_element(sorted.begin(), sorted.begin() + n / 2, sorted.begin() + n);
        return sorted[n / 2];
    }
    // (seconds, completed command buffers), then both are reset.
    std::pair<double, long long> take()
    {
        std::lock_guard<std::mutex> lock(mutex);
        auto result = std::make_pair(total, count);
        total = 0;
        count = 0;
        return result;
    }

private:
    std::mutex mutex;
    double total = 0;
    long long count = 0;
    std::array<double, 15> lately{};
    size_t next = 0;
};
