// AVX2 kernel. AVX2 has no signed x signed byte multiply, and the usual unsigned x signed
// shortcut (vpmaddubsw) saturates its 16-bit pair sums when both inputs hold -128. So the bytes
// are sign-extended to 16 bits and multiplied with vpmaddwd, which is exact for every pair.
#include <immintrin.h>

#include "quant/dot512_kernels.h"

namespace orve {
namespace {

inline __m256i widen16(const int8_t* p) {
    return _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
}

inline int32_t hsum_epi32(__m256i v) {
    __m128i s = _mm_add_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(1, 0, 3, 2)));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(2, 3, 0, 1)));
    return _mm_cvtsi128_si32(s);
}

}  // namespace

int32_t dot512_avx2(const int8_t* a, const int8_t* b) {
    __m256i acc0 = _mm256_setzero_si256(), acc1 = _mm256_setzero_si256();
    __m256i acc2 = _mm256_setzero_si256(), acc3 = _mm256_setzero_si256();
    for (std::size_t i = 0; i < kRowBytes; i += 64) {
        acc0 = _mm256_add_epi32(acc0, _mm256_madd_epi16(widen16(a + i), widen16(b + i)));
        acc1 = _mm256_add_epi32(acc1, _mm256_madd_epi16(widen16(a + i + 16), widen16(b + i + 16)));
        acc2 = _mm256_add_epi32(acc2, _mm256_madd_epi16(widen16(a + i + 32), widen16(b + i + 32)));
        acc3 = _mm256_add_epi32(acc3, _mm256_madd_epi16(widen16(a + i + 48), widen16(b + i + 48)));
    }
    return hsum_epi32(_mm256_add_epi32(_mm256_add_epi32(acc0, acc1), _mm256_add_epi32(acc2, acc3)));
}

void dot512_avx2_many(const int8_t* q, const int8_t* rows, std::size_t n, int32_t* out) {
    // The query is widened once; each row then costs one widening load per 16 bytes.
    alignas(32) int16_t q16[kRowBytes];
    for (std::size_t i = 0; i < kRowBytes; i += 16) {
        _mm256_store_si256(reinterpret_cast<__m256i*>(q16 + i), widen16(q + i));
    }
    for (std::size_t r = 0; r < n; ++r) {
        const int8_t* row = rows + r * kRowBytes;
        __m256i acc0 = _mm256_setzero_si256(), acc1 = _mm256_setzero_si256();
        __m256i acc2 = _mm256_setzero_si256(), acc3 = _mm256_setzero_si256();
        for (std::size_t i = 0; i < kRowBytes; i += 64) {
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

}  // namespace orve
