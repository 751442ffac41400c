// The portable screen kernel and the choice of the fastest one.
#include "util/cpu_features.h"
#include "ivf/screen_kernels.h"

#include "quant/dot512_kernels.h"

namespace orve {

void screen_dots4_portable(const int8_t* const* rows, const int8_t* codes, const int32_t* code_sums,
                           uint32_t k4, int32_t* out, std::size_t ld) {
    (void)code_sums;
    const dot512_many_fn many = dot512_best().many;
    for (int r = 0; r < 4; ++r) many(rows[r], codes, k4, out + r * ld);
}

float screen_bounds_portable(const sketch_point& x, const sketch_columns& y, const int32_t* dots,
                             float* lo) {
    return screen_bounds_generic(x, y, dots, lo);
}

uint32_t screen_candidates_portable(const float* lo, uint32_t k, float h, uint32_t* out) {
    uint32_t count = 0;
    for (uint32_t c = 0; c < k; ++c) {
        if (lo[c] <= h) out[count++] = c;
    }
    return count;
}

namespace {

struct kernel_set {
    screen_kernel k[2];
    std::size_t n;
};

kernel_set probe() {
    kernel_set s{
        {{"portable", screen_dots4_portable, screen_bounds_portable, screen_candidates_portable}},
        1};
#if defined(__x86_64__)
    const cpu_features& cpu = host_cpu_features();
    if (cpu.avx512f && cpu.avx512bw && cpu.avx512_vnni) {
        s.k[s.n++] = screen_kernel{"avx512_vnni", screen_dots4_avx512vnni, screen_bounds_avx512,
                                   screen_candidates_avx512};
    }
#endif
    return s;
}

const kernel_set kAvailable = probe();

}  // namespace

const screen_kernel* screen_kernels_available(std::size_t* count) {
    *count = kAvailable.n;
    return kAvailable.k;
}

const screen_kernel& screen_best() {
    return kAvailable.k[kAvailable.n - 1];
}

}  // namespace orve
