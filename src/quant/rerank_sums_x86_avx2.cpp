#include "quant/float_transpose.h"
#include "quant/rerank_sums.h"
#include "quant/x86_intrinsics.h"

namespace orve {

void rerank_sums8_avx2(const float* query, const float* const* rows, double* qr, double* rr) {
    // Rows 0-3 in the first sums, rows 4-7 in the second: half the instructions of the
    // two-wide form for the same eight chains of additions, each product and sum a separate
    // rounding (no fused multiply-add), as in the two-wide form.
    __m256d qr_a = _mm256_setzero_pd(), qr_b = qr_a, rr_a = qr_a, rr_b = qr_a;
    const auto step = [&](float qs, quad_f32 a, quad_f32 b) __attribute__((always_inline)) {
        const __m256d q = _mm256_set1_pd(qs);
        const __m256d va = _mm256_cvtps_pd(a), vb = _mm256_cvtps_pd(b);
        qr_a = _mm256_add_pd(qr_a, _mm256_mul_pd(q, va));
        rr_a = _mm256_add_pd(rr_a, _mm256_mul_pd(va, va));
        qr_b = _mm256_add_pd(qr_b, _mm256_mul_pd(q, vb));
        rr_b = _mm256_add_pd(rr_b, _mm256_mul_pd(vb, vb));
    };
    for_each_value_of_eight(query, rows, step);
    _mm256_storeu_pd(qr, qr_a);
    _mm256_storeu_pd(qr + 4, qr_b);
    _mm256_storeu_pd(rr, rr_a);
    _mm256_storeu_pd(rr + 4, rr_b);
}

}  // namespace orve
