// The float and int8 squared distances of the k-means training, the kernel choice behind the
// float one, and the in-place normalisation of a training row.
#include <stdlib.h>

#include <cmath>

#include "util/cpu_features.h"
#include "ivf/ivf_internal.h"
#include "ivf/l2sq_512_kernels.h"

namespace orve {

void l2sq_partials_portable(const float* a, const float* b, float* partial) {
    for (int j = 0; j < 16; ++j) partial[j] = 0.0f;
    for (int t = 0; t < 32; ++t) {
        for (int j = 0; j < 16; ++j) {
            const float d = a[16 * t + j] - b[16 * t + j];
            partial[j] = std::fmaf(d, d, partial[j]);
        }
    }
}

namespace {

struct kernel_set {
    l2sq_kernel k[3];
    std::size_t n;
};

kernel_set probe() {
    kernel_set s{{{"portable", l2sq_partials_portable}}, 1};
#if defined(__x86_64__)
    const cpu_features& cpu = host_cpu_features();
    if (cpu.avx2 && cpu.fma) {
        s.k[s.n++] = l2sq_kernel{"avx2_fma", l2sq_partials_avx2_fma};
    }
    // The AVX-512 file is compiled with the same flags as the VNNI dot-product kernel, so it is
    // only run where all of them are present.
    if (cpu.avx512f && cpu.avx512bw && cpu.avx512_vnni) {
        s.k[s.n++] = l2sq_kernel{"avx512", l2sq_partials_avx512};
    }
#elif defined(__aarch64__)
    s.k[s.n++] = l2sq_kernel{"neon", l2sq_partials_neon};
#endif
    return s;
}

// Probed once at load, before any caller runs; best kernel last.
const kernel_set kAvailable = probe();

}  // namespace

const l2sq_kernel* l2sq_kernels_available(std::size_t* count) {
    *count = kAvailable.n;
    return kAvailable.k;
}

const l2sq_kernel& l2sq_best() {
    return kAvailable.k[kAvailable.n - 1];
}

uint32_t kmeans_rand_index(unsigned int* state, uint32_t n) {
    const int32_t r = rand_r(state);  // in [0, RAND_MAX], so the remainder is never negative
    return static_cast<uint32_t>(r % static_cast<int32_t>(n));
}

uint32_t kmeans_pp_draw(const float* d, uint32_t n, unsigned int* state) {
    double total = 0.0;
    for (uint32_t i = 0; i < n; ++i) total += static_cast<double>(d[i]);
    if (total <= 1e-30) return kmeans_rand_index(state, n);
    const double target = static_cast<double>(rand_r(state)) / 2147483647.0 * total;
    double running = 0.0;
    for (uint32_t i = 0; i < n; ++i) {
        running += static_cast<double>(d[i]);
        if (running >= target) return i;
    }
    return n - 1;  // rounding can leave the running sum just short of the target
}

void dequantize_row(const int8_t* code, float scale, float* out) {
    if (!(scale > 0.0f)) {
        for (int i = 0; i < 512; ++i) out[i] = 0.0f;
        return;
    }
    const float w = 1.0f / scale;
    for (int i = 0; i < 512; ++i) out[i] = static_cast<float>(code[i]) * w;
}

}  // namespace orve

float l2sq_512(const float* a, const float* b) {
    float partial[16];
    orve::l2sq_best().partials(a, b, partial);
    return orve::l2sq_combine(partial);
}

int32_t l2sq_512_i8(const int8_t* a, const int8_t* b) {
    int32_t s = 0;
    for (int i = 0; i < 512; ++i) {
        const int32_t d = static_cast<int32_t>(a[i]) - static_cast<int32_t>(b[i]);
        s += d * d;
    }
    return s;
}

namespace orve {

float unit_length_factor(const float* row) {
    // Each square of a float is exact in double; only the running sum rounds, in index order.
    double s = 0.0;
    for (int i = 0; i < 512; ++i) {
        const double x = row[i];
        s += x * x;
    }
    if (s <= 1e-30) return -1.0f;
    // Positive, +0 or NaN, never negative: the -1 above stays distinguishable.
    return 1.0f / static_cast<float>(std::sqrt(s));
}

}  // namespace orve

void l2_normalize_inplace(float* row) {
    const float inv = orve::unit_length_factor(row);
    if (inv < 0.0f) return;
    for (int i = 0; i < 512; ++i) row[i] *= inv;
}
