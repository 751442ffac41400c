// Kernels behind l2sq_512. Every variant computes the same 16 fused multiply-add partial sums
// (sum j takes lane j of each 16-lane block, in block order) and hands them to the same scalar
// combination, so a vector width only changes how many partial sums advance per instruction,
// never a result.
#pragma once

#include <cstddef>

namespace orve {

// Writes the 16 partial sums of (a[i] - b[i])^2 over 512 lanes to partial[0..15].
using l2sq_partials_fn = void (*)(const float* a, const float* b, float* partial);

struct l2sq_kernel {
    const char* name;
    l2sq_partials_fn partials;
};

// Kernels compiled into this build that the running processor can execute; the portable one
// (std::fmaf per lane) is always first. Sets *count.
const l2sq_kernel* l2sq_kernels_available(std::size_t* count);

// The fastest available kernel, chosen once when the library is loaded.
const l2sq_kernel& l2sq_best();

// The fixed combination of the 16 partial sums into the distance.
inline float l2sq_combine(const float* p) {
    float s[4];
    for (int l = 0; l < 4; ++l) s[l] = (p[8 + l] + p[12 + l]) + (p[l] + p[4 + l]);
    return (s[0] + s[1]) + (s[2] + s[3]);
}

void l2sq_partials_portable(const float* a, const float* b, float* partial);

#if defined(__x86_64__)
void l2sq_partials_avx2_fma(const float* a, const float* b, float* partial);
void l2sq_partials_avx512(const float* a, const float* b, float* partial);
#endif

#if defined(__aarch64__)
void l2sq_partials_neon(const float* a, const float* b, float* partial);
#endif

}  // namespace orve
