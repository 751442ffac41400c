// AVX2 partial sums: two 8-lane registers hold partial sums 0-7 and 8-15. FMA is a separate
// extension from AVX2; the file is built for both and only chosen where both are reported.
#include <immintrin.h>

#include "quant/l2sq_partials.h"

namespace orve {

void l2sq_partials_avx2_fma(const float* a, const float* b, float* partial) {
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
