// AVX-512F partial sums: one 16-lane register holds exactly the 16 partial sums, and each
// vfmadd231ps performs the same correctly rounded fused multiply-add on every lane as std::fmaf
// does on one.
#include "quant/x86_intrinsics.h"

#include "quant/l2sq_partials.h"

namespace orve {

void l2sq_partials_avx512f(const float* a, const float* b, float* partial) {
    __m512 acc = _mm512_setzero_ps();
    for (std::size_t i = 0; i < 512; i += 16) {
        const __m512 d = _mm512_sub_ps(_mm512_loadu_ps(a + i), _mm512_loadu_ps(b + i));
        acc = _mm512_fmadd_ps(d, d, acc);
    }
    _mm512_storeu_ps(partial, acc);
}

}  // namespace orve
