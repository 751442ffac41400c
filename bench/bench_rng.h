// The benchmarks' one generator of test data: xorshift64, so every program and every run builds
// the same rows from the same seed, on any machine.
#pragma once

#include <cstdint>

namespace orve_bench {

struct rng {
    uint64_t s;
    float next() {  // uniform in [-1, 1)
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return static_cast<float>(s >> 40) * 0x1p-23f - 1.0f;
    }
};

}  // namespace orve_bench
