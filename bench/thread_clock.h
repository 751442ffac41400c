// This thread's CPU time, for rates that do not count the time other processes took the core.
#pragma once

#include <ctime>

namespace orve_bench {

inline double thread_seconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

}  // namespace orve_bench
