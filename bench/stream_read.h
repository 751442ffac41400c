// The streaming read the benchmarks compare scans against: every word of a buffer summed in
// order, four independent sums so that the adds are never the limit, only memory.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orve_bench {

inline uint64_t sum_words(const uint64_t* w, std::size_t words) {
    uint64_t a = 0, b = 0, c = 0, d = 0;
    for (std::size_t i = 0; i + 3 < words; i += 4) {
        a += w[i];
        b += w[i + 1];
        c += w[i + 2];
        d += w[i + 3];
    }
    return a + b + c + d;
}

}  // namespace orve_bench
