// The streaming read the benchmarks compare scans against: every word of a buffer summed in
// order, four independent sums so that the adds are never the limit, only memory.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <thread>
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

// Bytes per second that `threads` threads read together, each streaming a buffer of its own of
// `bytes` (written first, so every page is resident): the best of five passes, each timed from
// a common start to the last thread's end. With more than one thread this is what concurrent
// full scans of separate data can get from memory at most.
inline double stream_read_rate(std::size_t bytes, unsigned threads) {
    const std::size_t words = bytes / sizeof(uint64_t);
    std::vector<std::vector<uint64_t>> bufs(threads);
    for (auto& b : bufs) b.assign(words, 1);
    std::atomic<uint64_t> sink{0};
    double best = 0.0;
    for (int pass = 0; pass < 5; ++pass) {
        std::atomic<unsigned> ready{0};
        std::atomic<bool> go{false};
        std::vector<std::thread> pool;
        for (unsigned t = 0; t < threads; ++t) {
            pool.emplace_back([&, t] {
                ready.fetch_add(1);
                while (!go.load()) std::this_thread::yield();
                sink.fetch_add(sum_words(bufs[t].data(), words));
            });
        }
        while (ready.load() != threads) std::this_thread::yield();
        const auto t0 = std::chrono::steady_clock::now();
        go.store(true);
        for (auto& th : pool) th.join();
        const double s =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        best = std::max(best, static_cast<double>(words * sizeof(uint64_t)) * threads / s);
    }
    return sink.load() == 42 ? 0.0 : best;  // the sums are used, so the reads stay
}

}  // namespace orve_bench
