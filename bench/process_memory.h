// The process's resident memory as /proc reports it, for the benchmarks' memory figures.
#pragma once

#include <unistd.h>

#include <cstdio>

namespace orve_bench {

// Resident bytes now; 0 where /proc cannot be read.
inline long resident_bytes() {
    long pages = 0, resident = 0;
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (f == nullptr) return 0;
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
    return resident * sysconf(_SC_PAGESIZE);
}

// The highest resident bytes since the start or the last reset_peak_resident(); 0 where /proc
// cannot be read.
inline long peak_resident_bytes() {
    FILE* f = std::fopen("/proc/self/status", "r");
    if (f == nullptr) return 0;
    char line[256];
    long kb = 0;
    while (std::fgets(line, sizeof line, f) != nullptr) {
        if (std::sscanf(line, "VmHWM: %ld kB", &kb) == 1) break;
    }
    std::fclose(f);
    return kb * 1024;
}

// Sets the peak back to the current resident size (writing 5 to clear_refs), so that a stage
// can report its own peak; false where the system refuses.
inline bool reset_peak_resident() {
    FILE* f = std::fopen("/proc/self/clear_refs", "w");
    if (f == nullptr) return false;
    const bool ok = std::fputs("5", f) >= 0;
    return std::fclose(f) == 0 && ok;
}

}  // namespace orve_bench
