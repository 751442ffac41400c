// The streaming read the benchmarks compare scans against: every word of a buffer summed in
// order, in four independent sums. A yardstick, not the machine's ceiling: it is one plain loop
// as a compiler builds it, and a scan with wider loads and its own prefetching can read faster
// (brute force here reaches 115 to 140 % of it).
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

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

// Bytes per second one thread streams from a buffer of `bytes` (written first, so every page
// is resident): the best of five passes.
inline double stream_read_rate(std::size_t bytes) {
    const std::vector<uint64_t> buf(bytes / sizeof(uint64_t), 1);
    uint64_t sink = 0;
    double best = 0.0;
    for (int pass = 0; pass < 5; ++pass) {
        const auto t0 = std::chrono::steady_clock::now();
        sink += sum_words(buf.data(), buf.size());
        const double s =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        best = std::max(best, static_cast<double>(buf.size() * sizeof(uint64_t)) / s);
    }
    return sink == 42 ? 0.0 : best;  // the sums are used, so the reads stay
}

}  // namespace orve_bench
