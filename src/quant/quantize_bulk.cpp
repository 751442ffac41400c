// The portable bulk quantiser and the choice of variant.
#include "quant/quantize_bulk.h"

#include "semantic_vector_indexing.h"
#include "util/cpu_features.h"

namespace orve {

void quantize_rows_reference(const float* in, std::size_t n, int8_t* codes, float* scales,
                             float* norms) {
    for (std::size_t k = 0; k < n; ++k) {
        orve_quantize_float_vector_symmetric(in + k * ORVE512_DIM, ORVE512_DIM,
                                             codes + k * ORVE512_DIM, &scales[k], &norms[k]);
    }
}

namespace {

struct kernel_set {
    quantize_rows_kernel k[2];
    std::size_t n;
};

kernel_set probe() {
    kernel_set s{{{"reference", quantize_rows_reference}}, 1};
#if defined(__x86_64__)
    if (host_cpu_features().avx2) s.k[s.n++] = {"avx2", quantize_rows_avx2};
#elif defined(__aarch64__)
    // Advanced SIMD is part of every aarch64 processor.
    s.k[s.n++] = {"neon", quantize_rows_neon};
#endif
    return s;
}

// Chosen once at load: the processor does not change under a running process.
const kernel_set kAvailable = probe();
const quantize_rows_fn kBest = kAvailable.k[kAvailable.n - 1].fn;

}  // namespace

const quantize_rows_kernel* quantize_rows_available(std::size_t* count) {
    *count = kAvailable.n;
    return kAvailable.k;
}

void quantize_rows(const float* in, std::size_t n, int8_t* codes, float* scales, float* norms) {
    kBest(in, n, codes, scales, norms);
}

}  // namespace orve
