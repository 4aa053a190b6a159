#include "core/scheduling/ProcessUsage.h"

#include <cstdio>
#include <sys/resource.h>
#include <unistd.h>

namespace ProcessUsage {

double cpuSeconds()
{
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) != 0) return 0.0;
    const auto seconds = [](const timeval &t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

int footprintMegabytes()
{
    // The second field of statm is the resident set in pages. A macOS build asks the task's
    // physical footprint instead.
    std::FILE *file = std::fopen("/proc/self/statm", "r");
    if (!file) return -1;
    unsigned long long size = 0, resident = 0;
    const int read = std::fscanf(file, "%llu %llu", &size, &resident);
    std::fclose(file);
    const long pageSize = sysconf(_SC_PAGESIZE);
    if (read != 2 || pageSize <= 0) return -1;
    return int(resident * (unsigned long long)pageSize / (1ull << 20));
}

}  // namespace ProcessUsage
