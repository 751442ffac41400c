// Bulk quantisation with AVX2: eight rows at a time, one row per lane for the sum of squares.
// It mirrors the Advanced SIMD file step for step; the two stay apart because each is compiled
// only for its own architecture with its own intrinsics.
#include <immintrin.h>

#include <cmath>

#include "quant/quantize_bulk.h"
#include "semantic_vector_indexing.h"

namespace orve {
namespace {

constexpr std::size_t kLanes = 8;

// r[j] holds eight consecutive values of row j; afterwards r[i] holds value i of rows 0..7.
inline void transpose8(__m256 r[8]) {
    const __m256 t0 = _mm256_unpacklo_ps(r[0], r[1]);
    const __m256 t1 = _mm256_unpackhi_ps(r[0], r[1]);
    const __m256 t2 = _mm256_unpacklo_ps(r[2], r[3]);
    const __m256 t3 = _mm256_unpackhi_ps(r[2], r[3]);
    const __m256 t4 = _mm256_unpacklo_ps(r[4], r[5]);
    const __m256 t5 = _mm256_unpackhi_ps(r[4], r[5]);
    const __m256 t6 = _mm256_unpacklo_ps(r[6], r[7]);
    const __m256 t7 = _mm256_unpackhi_ps(r[6], r[7]);
    const __m256 u0 = _mm256_shuffle_ps(t0, t2, 0x44);
    const __m256 u1 = _mm256_shuffle_ps(t0, t2, 0xEE);
    const __m256 u2 = _mm256_shuffle_ps(t1, t3, 0x44);
    const __m256 u3 = _mm256_shuffle_ps(t1, t3, 0xEE);
    const __m256 u4 = _mm256_shuffle_ps(t4, t6, 0x44);
    const __m256 u5 = _mm256_shuffle_ps(t4, t6, 0xEE);
    const __m256 u6 = _mm256_shuffle_ps(t5, t7, 0x44);
    const __m256 u7 = _mm256_shuffle_ps(t5, t7, 0xEE);
    r[0] = _mm256_permute2f128_ps(u0, u4, 0x20);
    r[1] = _mm256_permute2f128_ps(u1, u5, 0x20);
    r[2] = _mm256_permute2f128_ps(u2, u6, 0x20);
    r[3] = _mm256_permute2f128_ps(u3, u7, 0x20);
    r[4] = _mm256_permute2f128_ps(u0, u4, 0x31);
    r[5] = _mm256_permute2f128_ps(u1, u5, 0x31);
    r[6] = _mm256_permute2f128_ps(u2, u6, 0x31);
    r[7] = _mm256_permute2f128_ps(u3, u7, 0x31);
}

// Codes of one row whose values are all finite and whose largest magnitude is at least the
// zero threshold. Multiply, clamp, then round in the current rounding mode, as lrintf does.
void encode_row(const float* x, float scale, int8_t* out) {
    const __m256 s = _mm256_set1_ps(scale);
    const __m256 hi = _mm256_set1_ps(127.0f);
    const __m256 lo = _mm256_set1_ps(-127.0f);
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    for (int i = 0; i < ORVE512_DIM; i += 32) {
        __m256i q[4];
        for (int k = 0; k < 4; ++k) {
            __m256 y = _mm256_mul_ps(s, _mm256_loadu_ps(x + i + 8 * k));
            y = _mm256_max_ps(_mm256_min_ps(y, hi), lo);
            q[k] = _mm256_cvtps_epi32(y);
        }
        // Values are within [-127, 127], so the saturating packs only narrow; the permute
        // undoes their per-128-bit-lane interleaving.
        const __m256i w =
            _mm256_packs_epi16(_mm256_packs_epi32(q[0], q[1]), _mm256_packs_epi32(q[2], q[3]));
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i),
                            _mm256_permutevar8x32_epi32(w, order));
    }
}

}  // namespace

void quantize_rows_avx2(const float* in, std::size_t n, int8_t* codes, float* scales,
                        float* norms) {
    const __m256 abs_mask = _mm256_castsi256_ps(_mm256_set1_epi32(0x7FFFFFFF));
    std::size_t k = 0;
    for (; k + kLanes <= n; k += kLanes) {
        const float* rows = in + k * ORVE512_DIM;
        __m256 sum = _mm256_setzero_ps();
        __m256 max = _mm256_setzero_ps();
        for (int c = 0; c < ORVE512_DIM; c += 8) {
            __m256 r[8];
            for (std::size_t j = 0; j < kLanes; ++j) {
                r[j] = _mm256_loadu_ps(rows + j * ORVE512_DIM + c);
            }
            transpose8(r);
            // Each lane adds its own row's squares in index order, as the one-row loop does:
            // a separate multiply and add, never fused.
            for (int i = 0; i < 8; ++i) {
                sum = _mm256_add_ps(sum, _mm256_mul_ps(r[i], r[i]));
                max = _mm256_max_ps(max, _mm256_and_ps(r[i], abs_mask));
            }
        }
        alignas(32) float s[kLanes];
        alignas(32) float m[kLanes];
        _mm256_store_ps(s, sum);
        _mm256_store_ps(m, max);
        // Same finish as the other set's bulk kernel, kept per file so its own encode_row inlines.
        for (std::size_t j = 0; j < kLanes; ++j) {
            const float* x = rows + j * ORVE512_DIM;
            int8_t* out = codes + (k + j) * ORVE512_DIM;
            // A finite sum means every value is finite. A row with a NaN or an infinity, or
            // whose squares overflow, goes to the one-row function, whose treatment of such
            // values the vector code does not try to mirror.
            if (!std::isfinite(s[j])) {
                orve_quantize_float_vector_symmetric(x, ORVE512_DIM, out, &scales[k + j],
                                                     &norms[k + j]);
                continue;
            }
            norms[k + j] = std::sqrt(s[j]);
            if (m[j] < kQuantZeroMagnitude) {
                for (int i = 0; i < ORVE512_DIM; ++i) out[i] = 0;
                scales[k + j] = 0.0f;
                continue;
            }
            const float scale = 127.0f / m[j];
            scales[k + j] = scale;
            encode_row(x, scale, out);
        }
    }
    quantize_rows_reference(in + k * ORVE512_DIM, n - k, codes + k * ORVE512_DIM, scales + k,
                            norms + k);
}

}  // namespace orve
