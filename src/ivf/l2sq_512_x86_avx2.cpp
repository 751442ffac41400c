// AVX2 partial sums of l2sq_512: two 8-lane registers hold partial sums 0-7 and 8-15. FMA is a
// separate extension from AVX2, so this one function is compiled for it explicitly and is only
// chosen on processors that report both.
#include <immintrin.h>

#include "ivf/l2sq_512_kernels.h"

namespace orve {

__attribute__((target("avx2,fma"))) void l2sq_partials_avx2_fma(const float* a, const float* b,
                                                                float* partial) {
    __m256 lo = _mm256_setzero_ps(), hi = _mm256_setzero_ps();
    for (std::size_t i = 0; i < 512; i += 16) {
        const __m256 dlo = _mm256_sub_ps(_mm256_loadu_ps(a + i), _mm256_loadu_ps(b + i));
        const __m256 dhi = _mm256_sub_ps(_mm256_loadu_ps(a + i + 8), _mm256_loadu_ps(b + i + 8));
        lo = _mm256_fmadd_ps(dlo, dlo, lo);
        hi = _mm256_fmadd_ps(dhi, dhi, hi);
    }
    _mm256_storeu_ps(partial, lo);
    _mm256_storeu_ps(partial + 8, hi);
}

}  // namespace orve
