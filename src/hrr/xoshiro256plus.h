// xoshiro256+: the generator behind HRR atoms. Its state comes from a SHA-256 digest, so an
// atom's draws depend only on what was hashed. Only the top 53 bits of an output are used, which
// avoids the weak low bits of the "+" scrambler.
#pragma once

#include <cstdint>

namespace orve {

struct xoshiro256plus {
    uint64_t s[4];
};

inline uint64_t xoshiro256plus_next(xoshiro256plus* g) {
    uint64_t* s = g->s;
    const uint64_t result = s[0] + s[3];
    const uint64_t t = s[1] << 17;
    s[2] ^= s[0];
    s[3] ^= s[1];
    s[1] ^= s[2];
    s[0] ^= s[3];
    s[2] ^= t;
    s[3] = (s[3] << 45) | (s[3] >> 19);
    return result;
}

// A double in [0, 1) carrying 53 random bits. Scaling by 2^-53 is exact.
inline double xoshiro256plus_uniform(xoshiro256plus* g) {
    return static_cast<double>(xoshiro256plus_next(g) >> 11) * 0x1p-53;
}

}  // namespace orve
