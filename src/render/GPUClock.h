#pragma once

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
};
