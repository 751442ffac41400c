// The cosine of two quantised vectors from the dot product of their codes, inline so scans pay
// no call per row.
#pragma once

#include <cstdint>
#include <cstring>

namespace orve {

inline float cosine_from_dot(int32_t dot, float scale_a, float scale_b, float norm_a,
                             float norm_b) {
    if (scale_a <= 0.0f || scale_b <= 0.0f || norm_a <= 0.0f || norm_b <= 0.0f) return 0.0f;
    const float d = ((scale_a * scale_b) * norm_a) * norm_b;
    if (d <= 0.0f) return 0.0f;  // the product underflowed
    return static_cast<float>(dot) / d;
}

// cosine_from_dot of n rows against one vector a, out[i] from dots[i], scale_b[i] and norm_b[i]:
// the same float operations on every row, so the same bits, four rows per division. The tests
// that make the lone form return 0 become selects, as a compiler keeps them as branches.
// Returns whether any score is above `bar`, so that a scan can pass over rows none of which
// could enter its heap without looking at each. In an unnamed namespace so that a file built
// for a wider instruction set never lends its copy to the others.
namespace {
template <int Unused = 0>
bool cosine_from_dots(const int32_t* dots, float scale_a, const float* scale_b, float norm_a,
                      const float* norm_b, uint32_t n, float bar, float* out) {
    typedef float v4f __attribute__((vector_size(16)));
    typedef int32_t v4i __attribute__((vector_size(16)));
    if (scale_a <= 0.0f || norm_a <= 0.0f) {
        for (uint32_t i = 0; i < n; ++i) out[i] = 0.0f;
        return 0.0f > bar;
    }
    const v4f zero = v4f{};
    v4i above = v4i{};
    uint32_t i = 0;
    for (; i + 4 <= n; i += 4) {
        v4f sb, nb;
        v4i dot;
        std::memcpy(&sb, scale_b + i, sizeof sb);
        std::memcpy(&nb, norm_b + i, sizeof nb);
        std::memcpy(&dot, dots + i, sizeof dot);
        const v4f d = ((scale_a * sb) * norm_a) * nb;
        const v4f s = __builtin_convertvector(dot, v4f) / d;
        const v4f r = (sb <= zero) | (nb <= zero) | (d <= zero) ? zero : s;
        above |= r > bar;
        std::memcpy(out + i, &r, sizeof r);
    }
    bool any = (above[0] | above[1] | above[2] | above[3]) != 0;
    for (; i < n; ++i) {
        out[i] = cosine_from_dot(dots[i], scale_a, scale_b[i], norm_a, norm_b[i]);
        any = any || out[i] > bar;
    }
    return any;
}
}  // namespace

}  // namespace orve
