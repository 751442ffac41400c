// AVX2 kernel. AVX2 has no signed x signed byte multiply, and the usual unsigned x signed
// shortcut (vpmaddubsw) saturates its 16-bit pair sums when both inputs hold -128. So the bytes
// are sign-extended to 16 bits and multiplied with vpmaddwd, which is exact for every pair.
#include "quant/x86_lane_sums.h"

#include "quant/dot512_kernels.h"

namespace orve {
namespace {

inline __m256i widen16(const int8_t* p) {
    return _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

}  // namespace

int32_t dot512_avx2(const int8_t* a, const int8_t* b) {
    __m256i acc0 = _mm256_setzero_si256(), acc1 = _mm256_setzero_si256();
    __m256i acc2 = _mm256_setzero_si256(), acc3 = _mm256_setzero_si256();
    for (std::size_t i = 0; i < kCodeBytes; i += 64) {
        acc0 = _mm256_add_epi32(acc0, _mm256_madd_epi16(widen16(a + i), widen16(b + i)));
        acc1 = _mm256_add_epi32(acc1, _mm256_madd_epi16(widen16(a + i + 16), widen16(b + i + 16)));
        acc2 = _mm256_add_epi32(acc2, _mm256_madd_epi16(widen16(a + i + 32), widen16(b + i + 32)));
        acc3 = _mm256_add_epi32(acc3, _mm256_madd_epi16(widen16(a + i + 48), widen16(b + i + 48)));
    }
    return hsum_epi32(_mm256_add_epi32(_mm256_add_epi32(acc0, acc1), _mm256_add_epi32(acc2, acc3)));
}

void dot512_avx2_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out) {
    // The query is widened once; each row then costs one widening load per 16 bytes.
    alignas(32) int16_t q16[kCodeBytes];
    for (std::size_t i = 0; i < kCodeBytes; i += 16) {
        _mm256_store_si256(reinterpret_cast<__m256i*>(q16 + i), widen16(q + i));
    }
    for (std::size_t r = 0; r < n; ++r) {
        const int8_t* row = rows + r * kCodeBytes;
        __m256i acc0 = _mm256_setzero_si256(), acc1 = _mm256_setzero_si256();
        __m256i acc2 = _mm256_setzero_si256(), acc3 = _mm256_setzero_si256();
        for (std::size_t i = 0; i < kCodeBytes; i += 64) {
            const __m256i* qv = reinterpret_cast<const __m256i*>(q16 + i);
            acc0 = _mm256_add_epi32(acc0, _mm256_madd_epi16(widen16(row + i), qv[0]));
            acc1 = _mm256_add_epi32(acc1, _mm256_madd_epi16(widen16(row + i + 16), qv[1]));
            acc2 = _mm256_add_epi32(acc2, _mm256_madd_epi16(widen16(row + i + 32), qv[2]));
            acc3 = _mm256_add_epi32(acc3, _mm256_madd_epi16(widen16(row + i + 48), qv[3]));
        }
        out[r] = hsum_epi32(
            _mm256_add_epi32(_mm256_add_epi32(acc0, acc1), _mm256_add_epi32(acc2, acc3)));
    }
}

void dot512_avx2_multi(const int8_t* const* queries, const int8_t* rows, std::size_t n,
                       int32_t* out, std::size_t ld) {
    // The queries are widened once (4 KiB, first-level cache); each 16 bytes of a row are then
    // widened once and multiplied with all four.
    alignas(32) int16_t q16[kMultiQueries][kCodeBytes];
    for (std::size_t j = 0; j < kMultiQueries; ++j) {
        for (std::size_t i = 0; i < kCodeBytes; i += 16) {
            _mm256_store_si256(reinterpret_cast<__m256i*>(q16[j] + i), widen16(queries[j] + i));
        }
    }
    for (std::size_t r = 0; r < n; ++r) {
        const int8_t* row = rows + r * kCodeBytes;
        __m256i a0 = _mm256_setzero_si256(), a1 = a0, a2 = a0, a3 = a0;
        for (std::size_t i = 0; i < kCodeBytes; i += 16) {
            const __m256i rv = widen16(row + i);
            a0 = _mm256_add_epi32(
                a0, _mm256_madd_epi16(rv, *reinterpret_cast<const __m256i*>(q16[0] + i)));
            a1 = _mm256_add_epi32(
                a1, _mm256_madd_epi16(rv, *reinterpret_cast<const __m256i*>(q16[1] + i)));
            a2 = _mm256_add_epi32(
                a2, _mm256_madd_epi16(rv, *reinterpret_cast<const __m256i*>(q16[2] + i)));
            a3 = _mm256_add_epi32(
                a3, _mm256_madd_epi16(rv, *reinterpret_cast<const __m256i*>(q16[3] + i)));
        }
        out[r] = hsum_epi32(a0);
        out[ld + r] = hsum_epi32(a1);
        out[2 * ld + r] = hsum_epi32(a2);
        out[3 * ld + r] = hsum_epi32(a3);
    }
}

}  // namespace orve
