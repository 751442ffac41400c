// Partial sums of the float squared distance over 512 lanes, the k-means training's distance.
// Every variant computes the same 16 fused multiply-add partial sums (sum j takes lane j of each
// 16-lane block, in block order) and hands them to the same scalar combination, so a vector
// width only changes how many partial sums advance per instruction, never a result.
#pragma once

#include <cstddef>

namespace orve {

// Writes the 16 partial sums of (a[i] - b[i])^2 over 512 lanes to partial[0..15].
using l2sq_partials_fn = void (*)(const float* a, const float* b, float* partial);

// The fixed combination of the 16 partial sums into the distance.
inline float l2sq_combine(const float* p) {
    float s[4];
    for (int l = 0; l < 4; ++l) s[l] = (p[8 + l] + p[12 + l]) + (p[l] + p[4 + l]);
    return (s[0] + s[1]) + (s[2] + s[3]);
}

// std::fmaf per lane.
void l2sq_partials_portable(const float* a, const float* b, float* partial);

#if defined(__x86_64__)
void l2sq_partials_avx2_fma(const float* a, const float* b, float* partial);
void l2sq_partials_avx512f(const float* a, const float* b, float* partial);
#endif

#if defined(__aarch64__)
void l2sq_partials_neon(const float* a, const float* b, float* partial);
#endif

}  // namespace orve
