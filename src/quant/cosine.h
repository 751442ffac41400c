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

// cosine_from_dot of rows 0 .. n against one query into out[0 .. n): the same operations in
// the same order on each row, so the same bits, four rows per instruction instead of one
// division after another. Every row is divided whatever its divisor (a zero or negative one
// gives an infinity or NaN that the select then drops for the one-row form's zero); "not <= 0"
// is how the one-row form treats a NaN, which it passes on.
inline void cosines_from_dots(const int32_t* dots, float scale_a, float norm_a,
                              const float* scales_b, const float* norms_b, uint32_t n, float* out) {
    using f4 = float __attribute__((vector_size(16)));
    using i4 = int32_t __attribute__((vector_size(16)));
    if (scale_a <= 0.0f || norm_a <= 0.0f) {
        std::memset(out, 0, sizeof(float) * n);
        return;
    }
    const f4 zero = {0.0f, 0.0f, 0.0f, 0.0f};
    uint32_t j = 0;
    for (; j + 4 <= n; j += 4) {
        f4 sb, nb;
        i4 dot;
        std::memcpy(&sb, scales_b + j, sizeof sb);
        std::memcpy(&nb, norms_b + j, sizeof nb);
        std::memcpy(&dot, dots + j, sizeof dot);
        const f4 d = ((scale_a * sb) * norm_a) * nb;
        const f4 c = __builtin_convertvector(dot, f4) / d;
        const f4 r = ((sb <= zero) | (nb <= zero) | (d <= zero)) ? zero : c;
        std::memcpy(out + j, &r, sizeof r);
    }
    for (; j < n; ++j) out[j] = cosine_from_dot(dots[j], scale_a, scales_b[j], norm_a, norms_b[j]);
}

}  // namespace orve
