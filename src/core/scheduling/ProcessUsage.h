#pragma once

// What this process costs the machine, for the performance line. Any thread.
namespace ProcessUsage {

// User plus system CPU time of the whole process so far, in seconds.
double cpuSeconds();

// Resident memory in MB (2^20 bytes), or -1 when the system does not say.
int footprintMegabytes();

}  // namespace ProcessUsage
